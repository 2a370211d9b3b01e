#include "drivers/fastrak_wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/drivers/fastrak_unit.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

const std::string kOne = "\x00\x00\x80\x3f"s;
const std::string kMinusTwo = "\x00\x00\x00\xc0"s;
const std::string kZero(4, '\0');
const std::string kNinety = "\x00\x00\xb4\x42"s;

TEST(FastrakMounting, ASensorUpsideDownTurnsItsQuaternion) {
  const FastrakLayout layout{FastrakFormat::Bits32, 7};
  const std::string body =
      kOne + kMinusTwo + kOne + kZero + kZero + kNinety + kOne + kMinusTwo + kZero + kOne;
  FastrakChannels channels;
  SetFastrakScales(true, 1, layout.format, channels);
  Pose pose{};
  Quaternion quaternion{};
  const auto decode = [&](const Pose& offset) {
    return DecodeFastrakBody(layout, std::as_bytes(std::span(body)), 1, channels, offset, pose,
                             quaternion) &
           0xFF;
  };
  EXPECT_EQ(decode({10, 0, 0, 0, 0, -3.1415927F}), 10);
  EXPECT_FLOAT_EQ(pose[0], 11);
  EXPECT_FLOAT_EQ(pose[5], -1.5707964F);
  EXPECT_EQ(quaternion, (Quaternion{2, 1, 1, 0}));
  EXPECT_EQ(decode({}), 10);
  EXPECT_EQ(quaternion, (Quaternion{1, -2, 0, 1}));
}

// ---- Replies -------------------------------------------------------------------------------

struct Identification {
  const char* name;
  std::string reply;
  bool found;
  std::uint32_t word;
  int bitError;
};

class FastrakIdentification : public testing::TestWithParam<Identification> {};

TEST_P(FastrakIdentification, ComesFromTheStatusRecord) {
  const Identification& row = GetParam();
  const FastrakStatusRecord status = ParseFastrakStatus(row.reply);
  EXPECT_EQ(status.found, row.found);
  EXPECT_EQ(status.word, row.word);
  EXPECT_EQ(status.bitError, row.bitError);
}

constexpr std::uint32_t kWhole = 0x110000;  // from the first byte to the line feed

INSTANTIATE_TEST_SUITE_P(
    Replies, FastrakIdentification,
    testing::Values(
        Identification{"Fastrak", Status({{15, "3.02"}}), true, kWhole | 0x201, 0},
        Identification{"FastrakWithTheDotAt18", Status({{17, "3.02"}}), true, kWhole | 0x201, 0},
        Identification{"Insidetrak", Status({{16, "53.02"}, {18, "."}}), true, kWhole | 0x203, 0},
        Identification{"Isotrak2", Status({{17, "3"}, {20, "3"}}), true, kWhole | 0x204, 0},
        Identification{"Is300", Status({{17, "3.02"}, {21, "IS300 "}}), true, kWhole | 0x209, 0},
        Identification{"Is600", Status({{17, "3.02"}, {21, "IS600"}}), true, kWhole | 0x219, 0},
        Identification{"Is600OneFurther", Status({{17, "3.02"}, {22, "IS600"}}), true,
                       kWhole | 0x219, 0},
        Identification{"Is600NumberLater", Status({{17, "3.02"}, {21, "IS    600"}}), true,
                       kWhole | 0x219, 0},
        Identification{"Isotrak", Status({}), true, kWhole | 0x200, 0},
        Identification{"OfAnotherFamily", Status({{14, "2"}}), false, kWhole | 0x200, 0},
        Identification{"BitError", Status({{5, "7"}, {6, " 87"}, {15, "3.02"}}), true,
                       kWhole | 0xE0000 | 0x201, 87},
        Identification{"BehindOtherBytes", "01 x\r\n" + Status({{15, "3.02"}}), true, 0x100201, 0},
        Identification{"CutAfterTheVersion", Status({{15, "3.02"}}).substr(0, 20), true, 0x10201,
                       0},
        Identification{"HeadOnly", "21S", true, 0x10200, 0},
        Identification{"NoRecord", "21l1000\r\n", false, 0, 0},
        Identification{"Empty", "", false, 0, 0}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(FastrakStations, AreActiveAsTheListSays) {
  unsigned active = 9;
  EXPECT_FALSE(ParseActiveStations("21l101", 4, active));
  EXPECT_FALSE(ParseActiveStations("31l1010\r\n", 4, active));
  EXPECT_EQ(active, 9U);
  EXPECT_TRUE(ParseActiveStations("21l10Z0\r\n", 4, active));
  EXPECT_EQ(active, 5U);
}

}  // namespace
}  // namespace kinetrel::test

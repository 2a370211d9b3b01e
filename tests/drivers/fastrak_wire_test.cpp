#include "drivers/fastrak_wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/drivers/fastrak_unit.h"

namespace kinetrel::test {
namespace {

constexpr unsigned kPosition = 1;
constexpr unsigned kEuler = 2;
constexpr unsigned kQuaternion = 4;

std::span<const std::byte> AsBytes(const std::string& text) {
  return std::as_bytes(std::span(text));
}

// ---- Values --------------------------------------------------------------------------------

struct Decoding {
  const char* name;
  FastrakLayout layout;
  int units;
  std::string body;
  int result;  // values, with flags
  std::vector<float> values;
};

Decoding Read(const char* name, FastrakLayout layout, int units, std::string body, int result,
              std::vector<float> values) {
  return {name, layout, units, std::move(body), result, std::move(values)};
}

class FastrakDecoding : public testing::TestWithParam<Decoding> {};

// In place of a count: the record is out of step.
constexpr int kOutOfStep = -1;

struct Decoded {
  int result = kOutOfStep;
  Pose pose{};
  Quaternion quaternion = kIdentityQuaternion;

  float Value(std::size_t channel) const {
    return channel < 6 ? pose[channel] : quaternion[channel - 6];
  }
};

Decoded Decode(const FastrakLayout& layout, int units, const std::string& body,
               const Pose& offset = {}) {
  FastrakChannels channels;
  SetFastrakScales(true, units, layout.format, channels);
  Decoded decoded;
  if (!IsFastrakInStep(layout, AsBytes(body))) return decoded;
  decoded.result = DecodeFastrakBody(layout, AsBytes(body), units, channels, offset, decoded.pose,
                                     decoded.quaternion);
  return decoded;
}

TEST_P(FastrakDecoding, TurnsBytesIntoValues) {
  const Decoding& row = GetParam();
  const Decoded decoded = Decode(row.layout, row.units, row.body);
  EXPECT_EQ(decoded.result, row.result);
  for (std::size_t i = 0; i < row.values.size(); ++i) {
    EXPECT_NEAR(decoded.Value(i), row.values[i], 2e-6) << "value " << i;
  }
  if ((row.result & 0xFF) == row.layout.ValueCount()) return;
  EXPECT_EQ(decoded.pose, Pose{}) << "a record is dropped whole";
  EXPECT_EQ(decoded.quaternion, kIdentityQuaternion);
}

using enum FastrakFormat;
using namespace std::string_literals;

const std::string kOne = "\x00\x00\x80\x3f"s;
const std::string kMinusTwo = "\x00\x00\x00\xc0"s;
const std::string kZero(4, '\0');
const std::string kNinety = "\x00\x00\xb4\x42"s;
const std::string kFourHundred = "\x00\x00\xc8\x43"s;
const std::string kMinusFourHundred = "\x00\x00\xc8\xc3"s;
const std::string kTiny = "\x77\xcc\x2b\x31"s;  // 2.5e-9
const std::string kNotANumber = "\x00\x00\xc0\x7f"s;
const std::string kInfinity = "\x00\x00\x80\x7f"s;
constexpr int kTinyFlag = 0x10000;
constexpr int kAboveFlag = 0x20000;
constexpr int kBelowFlag = 0x40000;

INSTANTIATE_TEST_SUITE_P(
    Bits32, FastrakDecoding,
    testing::Values(
        Read("PositionAndAngles", {Bits32, kPosition | kEuler}, 1,
             kOne + kMinusTwo + kFourHundred + kNinety + kMinusTwo + kOne, 6 | kAboveFlag,
             {1, -2, 360, 1.5707963F, -0.034906585F, 0.017453292F}),
        Read("AnglesBeyondATurn", {Bits32, kEuler}, 1, kFourHundred + kMinusFourHundred + kTiny,
             3 | kTinyFlag | kAboveFlag | kBelowFlag, {0, 0, 0, 0, 0, 0}),
        Read("QuaternionAlone", {Bits32, kQuaternion}, 3, kOne + kMinusTwo + kOne + kMinusTwo, 4,
             {0, 0, 0, 0, 0, 0, 1, -2, 1, -2}),
        Read("ZeroIsTiny", {Bits32, kPosition}, 1, kOne + kZero + kOne, 3 | kTinyFlag, {1, 0, 1}),
        Read("InfinityIsABound", {Bits32, kPosition}, 1, kOne + kOne + kInfinity, 3 | kAboveFlag,
             {1, 1, 360}),
        Read("NotANumberEndsTheRecord", {Bits32, kPosition | kEuler}, 1,
             kOne + kNotANumber + kOne + kOne + kNotANumber + kOne, 1, {}),
        Read("Short", {Bits32, kPosition}, 1, kOne + kOne + "\x00\x00"s, 2, {}),
        Read("Nothing", {Bits32, 0}, 1, "", 0, {})),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Bits14, FastrakDecoding,
    testing::Values(
        Read("AllGroups", {Bits14, 7}, 1,
             "\x80\x00\x01\x00\x7f\x7f\x00\x20\x00\x60\x00\x00\x7f\x3f\x00\x00\x00\x40\x00\x20"s,
             10,
             {0, 0.0366211F, -0.0366211F, 1.5707963F, -1.5707963F, 0, 0.99987793F, 0, -1, 0.5F}),
        Read("FirstByteUnmarked", {Bits14, kPosition}, 1, "\x7f\x3f\x00\x40\x00\x20"s, -1, {}),
        Read("LaterByteMarked", {Bits14, kPosition}, 1, "\xff\x3f\x00\x40\x00\xa0"s, -1, {}),
        Read("Short", {Bits14, kPosition}, 1, "\xff\x3f\x00\x40\x00"s, 2, {})),
    [](const auto& row) { return std::string(row.param.name); });

TEST(FastrakMounting, ASensorUpsideDownTurnsItsQuaternion) {
  const std::string body =
      kOne + kMinusTwo + kOne + kZero + kZero + kNinety + kOne + kMinusTwo + kZero + kOne;
  const Decoded turned = Decode({Bits32, 7}, 1, body, {10, 0, 0, 0, 0, -3.1415927F});
  EXPECT_FLOAT_EQ(turned.pose[0], 11);
  EXPECT_FLOAT_EQ(turned.pose[5], -1.5707964F);
  EXPECT_EQ(turned.quaternion, (Quaternion{2, 1, 1, 0}));
  EXPECT_EQ(Decode({Bits32, 7}, 1, body).quaternion, (Quaternion{1, -2, 0, 1}));
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

TEST(FastrakModels, HaveStationsRateAndProtocol) {
  struct Row {
    std::uint32_t code;
    const char* name;
    int stations, rate, protocol;
  };
  for (const Row& row : {Row{0x201, "FasTRAK", 4, 120, 3}, Row{0x203, "InsideTRAK", 2, 30, 2},
                         Row{0x204, "IsoTRAK2", 2, 60, 2}, Row{0x209, "InterSense 300", 4, 150, 3},
                         Row{0x219, "InterSense 600", 4, 150, 3}, Row{0x200, "IsoTRAK", 1, 30, 2},
                         Row{0x20B, "IsoTRAK", 1, 30, 2}}) {
    const FastrakProduct& model = FindFastrakProduct(row.code);
    EXPECT_STREQ(DeviceNameText(model.name), row.name);
    EXPECT_EQ(model.stations, row.stations) << row.name;
    EXPECT_EQ(model.frameRate, row.rate) << row.name;
    EXPECT_EQ(static_cast<int>(model.protocol), row.protocol) << row.name;
  }
}

TEST(FastrakFirstReply, IsJudgedByItsFirstKnownRecord) {
  struct Row {
    std::string reply;
    BootResult judgement;
  };
  for (const Row& row : {Row{"01 1.00", 1},
                         Row{"x\x80"
                             "0\x07 ",
                             1},
                         Row{"21*", 1}, Row{"21E", 1}, Row{"x\r\nx", 1}, Row{"21l1000\r\n", 1},
                         Row{"21l0000\r\n", -6}, Row{"21l0", -6}, Row{"02A", 1}, Row{"05A", -10},
                         Row{"hello", -10}, Row{"01", -10}, Row{"", -10}, Row{"x\r\n", -10}}) {
    EXPECT_EQ(JudgeFastrakReply(row.reply), row.judgement) << row.reply;
  }
}

TEST(FastrakStations, AreActiveAsTheListSays) {
  unsigned active = 9;
  EXPECT_FALSE(ParseActiveStations("21l101", 4, active));
  EXPECT_FALSE(ParseActiveStations("31l1010\r\n", 4, active));
  EXPECT_EQ(active, 9U);
  EXPECT_TRUE(ParseActiveStations("21l10Z0\r\n", 4, active));
  EXPECT_EQ(active, 5U);
}

TEST(FastrakBitErrors, HaveTexts) {
  struct Row {
    int code;
    const char* text;
  };
  for (const Row& row :
       {Row{65, "X Driver Linearity"}, Row{76, "Z Slope of Coil / Receiver Z Linearity"},
        Row{77, "Unknown error code."}, Row{84, "Receiver PROM Error"},
        Row{104, "Not Used in FASTRAK"}, Row{105, "Not Used in FASTRAK"},
        Row{112, "Reserved for Future Use"}, Row{122, "Unused, Reserved."},
        Row{123, "Unknown error code."}, Row{-1, "Unknown error code."}}) {
    EXPECT_STREQ(BitErrorText(row.code), row.text) << row.code;
  }
}

}  // namespace
}  // namespace kinetrel::test

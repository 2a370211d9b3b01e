// The flock's side of the wire, against bytes written out from the protocol.
#include "emulate/flock_emulator.h"

#include <gtest/gtest.h>

#include "tests/emulate/device_bench.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

// A quarter, minus a quarter and a half of the full scale; half a turn's halves; five steps.
const MotionPose kPose{91.44, -91.44, 182.88, 90, -45, 5 * 180.0 / 8192};
const std::string kRecord = "\x80\x10\x00\x10\x00\x60\x00\x60\x00\x10\x05\x00"s;

DeviceBench Flock(FlockSettings settings = {}, const MotionPose& pose = kPose) {
  return DeviceBench(std::make_unique<FlockEmulator>(settings, MakeHold(pose)));
}

struct Dialogue {
  const char* name;
  FlockSettings settings;
  std::vector<Exchange> exchanges;
};

class FlockDialogue : public testing::TestWithParam<Dialogue> {};

TEST_P(FlockDialogue, AnswersAsTheUnitWould) {
  ExpectDialogue([] { return Flock(GetParam().settings); }, GetParam().exchanges);
}

INSTANTIATE_TEST_SUITE_P(
    Wire, FlockDialogue,
    testing::Values(
        Dialogue{"OneRecordForEachPoint", {}, {{"B", kRecord}, {"B", kRecord}, {"Y", ""}}},
        Dialogue{"ParametersOfAFlockOfThree",
                 {},
                 {{"O\x00"s, "\x00\x90"s},
                  {"O\x01", "\x03\x43"},
                  {"O\x02", "\x28\x00"s},
                  {"O\x07", "\x00\x90"s},
                  {"O\x0A", "\x00"s},
                  {"O\x0F", "6DFOB     "},
                  {"O!", "\x00\x0E\x00\x00\x00"s},
                  {"O#", "\x00"s},
                  {"O$", "\xA0\xA0\xA0\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"s}}},
        Dialogue{"ConfiguresTheBusAndIsDeafMeanwhile",
                 {.birds = 2},
                 {{"O2", "\x00\x00\x00\x00\x00"s},
                  {"P2\x03", ""},
                  {"O2", "\x03\x06\x00\x00\x00"s},
                  {"O\x00"s, "\x00\xD0"s}}},
        Dialogue{"AnErrorIsTakenByReadingItsCode",
                 {.error = 13},
                 {{"O\x00"s, "\x00\xB0"s}, {"O\x0A", "\x0D"}, {"O\x00"s, "\x00\x90"s}}},
        Dialogue{"WhatItDoesNotKnowIsAnError",
                 {},
                 {{"~", ""}, {"O\x63", ""}, {"P2\x63", ""}, {"O\x0A", "\x06"}, {"B", kRecord}}},
        Dialogue{"CommandsWithoutAnAnswer",
                 {},
                 {{"L\x0C\x01", ""},
                  {"\xF2L\x06\x00"s, ""},
                  {"P#\x00"s, ""},
                  {"P\x07\x00\x90"s, ""},
                  {"O\x0A", "\x00"s}}},
        Dialogue{"HalfACommandSwallowsTheNextByte",
                 {.start = FlockStart::HalfCommand},
                 {{"O\x00"s, ""}, {"O\x00"s, "\x00\xB0"s}}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(FlockEmulator, WhatIsOutOfRangeStaysAtTheEnd) {
  DeviceBench bench = Flock({}, {1000, 1000, -1000, 270, 180, -450});
  EXPECT_EQ(bench.Ask("B"), "\xFF\x3F\x00\x40\x7F\x3F\x00\x20\x00\x40\x00\x60"s);
}

TEST(FlockEmulator, StreamsAtItsRateUntilAPoint) {
  DeviceBench bench = Flock();
  bench.Send("@");
  EXPECT_EQ(bench.Collect(seconds(10) + milliseconds(3)).size(), 10 * 144 * kRecord.size());
  bench.Collect(milliseconds(3));
  EXPECT_EQ(bench.Ask("B"), kRecord);
}

TEST(FlockEmulator, APollIsNeverAnsweredWithAnOldFrame) {
  DeviceBench bench(std::make_unique<FlockEmulator>(FlockSettings{}, MakeRamp()));
  const std::string first = bench.Ask("B", milliseconds(2));
  EXPECT_EQ(first.size(), kRecord.size());
  EXPECT_EQ(bench.Ask("B", milliseconds(3)), "");
  const std::string second = bench.Collect(milliseconds(5));
  EXPECT_EQ(second.size(), kRecord.size());
  EXPECT_NE(first, second);
}

TEST(FlockEmulator, MayBeFoundAsAnotherHostLeftIt) {
  DeviceBench streaming = Flock({.start = FlockStart::Streaming});
  EXPECT_EQ(streaming.Collect(milliseconds(10)), kRecord);
  DeviceBench half = Flock({.start = FlockStart::HalfRecord});
  EXPECT_EQ(half.Collect(milliseconds(10)), "");
  half->HostOpened(half.now());
  EXPECT_EQ(half.Collect(milliseconds(10)), kRecord.substr(6));
}

TEST(FlockEmulator, APowerLossForgetsWhatTheHostSet) {
  DeviceBench bench = Flock();
  bench.Ask("P2\x03");
  bench.Ask("@");
  bench->Strike(bench.now(), {FaultKind::Restart});
  bench.Collect(milliseconds(20));
  EXPECT_EQ(bench.Ask("O\x00"s), "\x00\x90"s);
}

}  // namespace
}  // namespace kinetrel::test

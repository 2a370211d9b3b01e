// The head tracker's side of the wire, against bytes written out from the protocol.
#include "emulate/logitech_emulator.h"

#include <gtest/gtest.h>

#include "tests/emulate/device_bench.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

// 2.54 cm are 1000 counts: y -1000, x 1000, z 2000 the other way. Azimuth -90 is told as 90; to
// axes that did not turn with it an elevation is a roll, and a roll a pitch the other way.
const MotionPose kPose{2.54, -2.54, 5.08, -90, 10, 20};
const std::string kRecord =
    "\x80\x7F\x78\x18\x00\x07\x68\x7F\x70\x30\x6A\x20\x03\x10\x1C\x10"s;  // 340, 10, 90 degrees

DeviceBench Unit(LogitechSettings settings = {}) {
  return DeviceBench(std::make_unique<LogitechEmulator>(settings, MakeHold(kPose)), {19200});
}

TEST(LogitechEmulator, AnswersEveryCommand) {
  DeviceBench unit = Unit();
  EXPECT_EQ(unit.Ask("*\x05"), "\xBF\x3F");
  EXPECT_EQ(unit.Ask("*D*A"), "");
  EXPECT_EQ(unit.Ask("*m").size(), 30U);
  EXPECT_EQ(unit.Ask("*d"), kRecord);
  EXPECT_EQ(unit.Ask("d\x05x*x"), "");
  EXPECT_EQ(unit.Ask("*d*d"), kRecord + kRecord);
  EXPECT_EQ(Unit({.selfTest = 0x3FBD}).Ask("*\x05"), "\xBD\x3F");
}

TEST(LogitechEmulator, TellsAMeasurementWhenItIsMade) {
  DeviceBench unit = Unit();
  unit.Collect(milliseconds(33));
  unit.Send("*d");
  const auto pieces = unit.Watch(milliseconds(60));
  ASSERT_FALSE(pieces.empty());
  // The second one, at 40 ms, and 160 bits at 19200 baud.
  EXPECT_EQ(pieces.back().when, milliseconds(40) + std::chrono::nanoseconds(8333333));
}

TEST(LogitechEmulator, StreamsUntilItIsStopped) {
  DeviceBench unit = Unit();
  std::string stream = unit.Ask("S", seconds(1));
  EXPECT_EQ(stream.size() / 16, 49U);
  unit.Ask("D");
  EXPECT_EQ(unit.Collect(seconds(1)), "");
}

TEST(LogitechEmulator, ButtonsAndLostSightAreInTheHeader) {
  DeviceBench unit = Unit({.buttons = 0x45});
  EXPECT_EQ(unit.Ask("*d")[0], '\xC5');
  unit->Strike(unit.now(), {FaultKind::Error});
  EXPECT_EQ(unit.Ask("*d")[0], '\xE5');
  EXPECT_EQ(unit.Ask("*d")[0], '\xC5');
}

TEST(LogitechEmulator, MayBelongToAnotherHostStill) {
  DeviceBench streaming = Unit({.start = LogitechStart::Streaming});
  EXPECT_EQ(streaming.Collect(milliseconds(32)), kRecord);
  DeviceBench half = Unit({.start = LogitechStart::HalfRecord});
  half->HostOpened(half.now());
  EXPECT_EQ(half.Collect(milliseconds(50)), kRecord.substr(8));
}

}  // namespace
}  // namespace kinetrel::test

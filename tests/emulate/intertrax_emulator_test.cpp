// The InterTrax's side of the wire, against bytes written out from the protocol.
#include "emulate/intertrax_emulator.h"

#include <gtest/gtest.h>

#include "tests/emulate/device_bench.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

const std::string kRecord = "\x00\x40\x00\xE0\xAA\x2A"s;  // 90, -45, 60 of 180 in 32767

DeviceBench Unit(IntertraxSettings settings = {}) {
  auto motion = MakeHold({.azimuth = 90, .elevation = 45, .roll = -60});
  return DeviceBench(std::make_unique<IntertraxEmulator>(settings, motion), {1200});
}

TEST(IntertraxEmulator, ComesUpInTwoSteps) {
  DeviceBench unit = Unit();
  EXPECT_EQ(unit.Ask("d3"), "");  // too early
  EXPECT_EQ(unit.Ask("c"), "o");
  EXPECT_EQ(unit.Ask("v\0"s, seconds(1)), "v\0\x01\0\0\0InterTrax 1.0 (emulated)\0"s);
  EXPECT_EQ(unit.Ask("3"), "");
  EXPECT_EQ(unit.Ask("d"), "d");
  EXPECT_EQ(unit->line().baud(), 38400U);
  EXPECT_EQ(unit.Ask("3"), kRecord);
  EXPECT_EQ(unit.Ask("c"), "");
  EXPECT_EQ(unit.Ask("6", milliseconds(22)).size(), 30U);  // five, 4 ms each
  EXPECT_EQ(unit.Ask("6"), "");
}

TEST(IntertraxEmulator, AnAnswerTakesItsTimeOnTheLine) {
  DeviceBench unit = Unit();
  unit.Send("c");
  const auto pieces = unit.Watch(milliseconds(50));
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].when, std::chrono::nanoseconds(200000 + 8333333));
}

// The rate of a host that is seen to change it.
TEST(IntertraxEmulator, FollowsTheHostsRate) {
  DeviceBench unit = Unit({.start = IntertraxStart::Streaming});
  unit->SetHostBaud(unit.now(), 1200);
  EXPECT_EQ(unit.Collect(milliseconds(100)), "");
  EXPECT_EQ(unit.Ask("c"), "o");
  EXPECT_EQ(unit.Ask("d"), "d");
  EXPECT_EQ(unit->line().baud(), 1200U);
  unit->SetHostBaud(unit.now(), 38400);
  EXPECT_EQ(unit.Ask("3"), kRecord);
  unit->SetHostBaud(unit.now(), 1200);
  EXPECT_EQ(unit.Ask("3"), "");
  EXPECT_EQ(unit.Ask("c"), "o");
}

TEST(IntertraxEmulator, MayKeepItsVersionToItself) {
  DeviceBench unit = Unit({.tellsVersion = false});
  EXPECT_EQ(unit.Ask("c"), "o");
  EXPECT_EQ(unit.Ask("v\0"s), "");
  EXPECT_EQ(unit.Ask("d"), "d");
}

}  // namespace
}  // namespace kinetrel::test

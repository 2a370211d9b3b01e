// The head's side of the wire, against bytes written out from the protocol.
#include "emulate/pan_tilt_emulator.h"

#include <gtest/gtest.h>

#include "tests/emulate/device_bench.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

const std::string kEncoders = "\x00\x00\x00\x00\x00\x00\x00\x00\x18\xFC\x0C\xFE"s;

DeviceBench Head(PanTiltStart start = PanTiltStart::Idle) {
  return DeviceBench(
      std::make_unique<PanTiltEmulator>(start, MakeHold({.azimuth = 90, .elevation = -45})),
      {9600});
}

TEST(PanTiltEmulator, AnswersEachRequestAtItsLength) {
  DeviceBench head = Head();
  EXPECT_EQ(head.Ask("d"), kEncoders);
  EXPECT_EQ(head.Ask("b"), kEncoders + "\x00\x00"s);
  EXPECT_EQ(head.Ask("a"), "\x00\x00"s);
  EXPECT_EQ(head.Ask("Z"), "");
  EXPECT_EQ(head.Ask("x\xFF"), "");
  EXPECT_EQ(head.Ask("dd"), kEncoders + kEncoders);
}

TEST(PanTiltEmulator, AnAnswerTakesItsTimeOnTheLine) {
  DeviceBench head = Head();
  head.Send("d");
  const auto pieces = head.Watch(milliseconds(50));
  ASSERT_FALSE(pieces.empty());
  EXPECT_EQ(pieces.back().when, std::chrono::microseconds(13500));  // 12 bytes after 1 ms
}

TEST(PanTiltEmulator, MayStillOweHalfAnAnswerToAnotherHost) {
  DeviceBench head = Head(PanTiltStart::HalfAnswer);
  head->HostOpened(head.now());
  EXPECT_EQ(head.Collect(milliseconds(50)), kEncoders.substr(6));
  EXPECT_EQ(head.Ask("d"), kEncoders);
}

}  // namespace
}  // namespace kinetrel::test

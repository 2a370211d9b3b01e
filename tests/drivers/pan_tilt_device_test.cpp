// The pan-tilt head driver against a scripted head. Every byte of the protocol is written out here.
#include "drivers/pan_tilt_device.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/allocation_counter.h"
#include "tests/support/scripted_peer.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;
using std::chrono::milliseconds;

// ---- The head's side -----------------------------------------------------------------------

std::string Word(int value) {
  return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8 & 0xFF)};
}

std::string Encoders(int pan, int tilt) {
  return "\x11\x12\x13\x14"s.append(4, '\x7F') + Word(pan) + Word(tilt);
}

const std::string kZero = Encoders(0, 0);
const std::string kOne = Encoders(1000, -2000);
const std::string kTwo = Encoders(-500, 250);

class HeadOnALine : public DeviceOnALine<PanTiltDevice> {
 protected:
  // With the answer to the boot's own request read.
  void BootAndRead() {
    ASSERT_EQ(Boot(Answer("d", kZero) + Expect("Z")), kBooted);
    ScriptedPeer peer(line_, Answer("d", kZero));
    ASSERT_EQ(device_.ReadFrame(nullptr), 1U);
  }

  long Azimuth() { return std::lround(device_.GetSensorEuler(0)[0] * 2000 / kPi); }
  long Elevation() { return std::lround(device_.GetSensorEuler(0)[1] * 2000 / kPi); }
};

// ---- Boot ----------------------------------------------------------------------------------

class HeadBoot : public HeadOnALine, public testing::WithParamInterface<BootStory> {};

TEST_P(HeadBoot, Ends) {
  EXPECT_EQ(Boot(GetParam().script), GetParam().result);
  EXPECT_EQ(device_.GetBaudRate(), 9600U);
  EXPECT_EQ(device_.GetStatusCode(), 0x103);
}

Script ThreeTimes(const Script& script) { return script + script + script; }

INSTANTIATE_TEST_SUITE_P(
    Line, HeadBoot,
    testing::Values(
        BootStory{"EncodersOnly", Answer("d", kZero) + Expect("Z"), kBooted},
        BootStory{"ByteTooFew", ThreeTimes(Answer("d", kZero.substr(1))), kPortNotOpen},
        BootStory{"ByteTooMany", ThreeTimes(Answer("d", kZero + "x")), kPortNotOpen},
        BootStory{"Silence", ThreeTimes(Expect("d")), kPortNotOpen},
        BootStory{"TheRestOfAnOldAnswerComesFirst",
                  Answer("d", kOne.substr(5) + kZero) + Answer("d", kZero) + Expect("Z"), kBooted},
        BootStory{"PlugPulled", Expect("d") + HangUp(), kPortNotOpen}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Status --------------------------------------------------------------------------------

struct StatusRow {
  char request;
  std::size_t bytes;
  int result;
  const char* text;
};

TEST_F(HeadOnALine, TheStatusIsTheLengthOfTheAnswer) {
  const StatusRow rows[] = {
      {'d', 12, 1, "Encoders only enabled.  12 bytes returned."},
      {'d', 14, 0, "Encoders only enabled.  14 bytes returned."},
      {'b', 14, 3, "All data enabled.  14 bytes returned."},
      {'b', 13, 3, "All data enabled.  13 bytes returned."},
      {'b', 12, 0, "All data enabled.  12 bytes returned."},
      {'a', 2, 2, "Alternate data only enabled.  2 bytes returned."},
      {'a', 11, 2, "Alternate data only enabled.  11 bytes returned."},
      {'a', 12, 0, "Alternate data only enabled.  12 bytes returned."},
      {'a', 0, 0, "Alternate data only enabled.  0 bytes returned."},
      {'q', 12, 0, "Unrecognized data request.  12 bytes returned."},
      {'\0', 0, 0, "Unrecognized data request.  0 bytes returned."},
  };
  for (const StatusRow& row : rows) {
    ScriptedPeer peer(line_, Answer(std::string(1, row.request), std::string(row.bytes, 'x')));
    EXPECT_EQ(device_.SetProtocol(row.request), row.request);
    char text[100] = "";
    EXPECT_EQ(device_.QueryStatus(text, sizeof text), row.result) << text;
    EXPECT_STREQ(text, row.text);
    EXPECT_EQ(peer.Verdict(), "");
  }
}

// ---- Frames --------------------------------------------------------------------------------

struct FrameStory {
  const char* name;
  Script answer;  // to one request
  unsigned result;
  long azimuth = 0;
  long elevation = 0;
};

class HeadFrame : public HeadOnALine, public testing::WithParamInterface<FrameStory> {};

// A damaged answer does not spoil the next one.
TEST_P(HeadFrame, IsRead) {
  BootAndRead();
  {
    ScriptedPeer peer(line_, Expect("d") + GetParam().answer);
    EXPECT_EQ(device_.ReadFrame(nullptr), GetParam().result);
    EXPECT_EQ(Azimuth(), GetParam().azimuth);
    EXPECT_EQ(Elevation(), GetParam().elevation);
    EXPECT_EQ(peer.Verdict(), "");
  }
  ScriptedPeer peer(line_, Answer("d", kTwo));
  EXPECT_EQ(device_.ReadFrame(nullptr), 1U);
  EXPECT_EQ(Azimuth(), 500);
  EXPECT_EQ(Elevation(), 250);
  EXPECT_EQ(peer.Verdict(), "");
}

INSTANTIATE_TEST_SUITE_P(Line, HeadFrame,
                         testing::Values(FrameStory{"Clean", Send(kOne), 1, -1000, -2000},
                                         FrameStory{"InTwoPieces",
                                                    Send(kOne.substr(0, 7)) +
                                                        Wait(milliseconds(3)) +
                                                        Send(kOne.substr(7)),
                                                    1, -1000, -2000},
                                         FrameStory{"Cut", Send(kOne.substr(0, 11)), 0},
                                         FrameStory{"WithNoise", Send("\x55" + kOne), 0},
                                         FrameStory{"AFlood", Send(std::string(300, '\x0C')), 0},
                                         FrameStory{"Silence", {}, 0}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(HeadOnALine, TheFirstFrameReadsTheAnswerToTheBoot) {
  ASSERT_EQ(Boot(Answer("d", kOne) + Expect("Z")), kBooted);
  ScriptedPeer peer(line_, Answer("d", kTwo));
  EXPECT_EQ(device_.ReadFrame(nullptr), 1U);
  EXPECT_EQ(Azimuth(), -1000);
  EXPECT_EQ(device_.InputQueueLength(), 0U);  // the answer to the frame's own poll was taken too
}

TEST_F(HeadOnALine, AFrameSetsTheTimeAndTwoAngles) {
  BootAndRead();
  ScriptedPeer peer(line_, Answer("d", kOne));
  device_.Poll();
  double time = -1;
  EXPECT_EQ(AllocationsOf([&] { EXPECT_EQ(device_.ReadFrame(&time), 1U); }), 0);
  EXPECT_GT(time, 0);
  const float* const pose = device_.GetSensorPose(0);
  EXPECT_FLOAT_EQ(pose[3], static_cast<float>(-kPi / 2));
  EXPECT_FLOAT_EQ(pose[4], static_cast<float>(-kPi));
  EXPECT_EQ(pose[0], 0.0F);
  EXPECT_EQ(pose[5], 0.0F);
  EXPECT_EQ(peer.Verdict(), "");
}

// The late answer comes together with the next one.
TEST_F(HeadOnALine, ALateAnswerDelaysNoLaterOne) {
  BootAndRead();
  device_.Poll();
  EXPECT_EQ(device_.ReadFrame(nullptr), 0U);
  ScriptedPeer late(line_, Expect("d") + Answer("d", kOne + kTwo));
  device_.Poll();
  EXPECT_EQ(device_.ReadFrame(nullptr), 1U);
  EXPECT_EQ(Azimuth(), -1000);
  EXPECT_EQ(late.Verdict(), "");
  ScriptedPeer next(line_, Answer("d", kZero));
  EXPECT_EQ(device_.ReadFrame(nullptr), 1U);
  EXPECT_EQ(Azimuth(), 0);
}

TEST_F(HeadOnALine, NothingIsReadBeforeBootAndAfterAHangUp) {
  EXPECT_EQ(device_.ReadFrame(nullptr), 0U);  // not booted
  BootAndRead();
  line_.HangUp();
  double time = -1;
  EXPECT_EQ(device_.ReadFrame(&time), 0U);
  EXPECT_EQ(time, -1);
  EXPECT_TRUE(device_.LineLost());
}

// ---- Settings ------------------------------------------------------------------------------

TEST_F(HeadOnALine, TheProtocolIsTheRequest) {
  BootAndRead();
  EXPECT_EQ(device_.SetProtocol('b'), 'b');
  ScriptedPeer all(line_, Answer("b", kOne + "\x01\x02"));
  EXPECT_EQ(device_.ReadFrame(nullptr), 1U);
  EXPECT_EQ(Azimuth(), -1000);
  EXPECT_EQ(all.Verdict(), "");

  EXPECT_EQ(device_.SetProtocol('a'), 'a');
  ScriptedPeer alternate(line_, Answer("a", "\x01\x02") + Answer("a", "\x01\x02"));
  EXPECT_EQ(device_.ReadFrame(nullptr), 1U);
  EXPECT_EQ(device_.ReadFrame(nullptr), 1U);
  EXPECT_EQ(Azimuth(), -1000);
  EXPECT_EQ(alternate.Verdict(), "");

  EXPECT_EQ(device_.SetProtocol(0x164), 0x64);
  EXPECT_EQ(device_.GetProtocol(), 0x164);
}

}  // namespace
}  // namespace kinetrel::test

// Whole runs of an InterSense tracker: the substitute library, the program and a client, which must
// see the substitute's motion.
#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "drivers/isense_device.h"
#include "tests/support/emulated_run.h"
#include "tests/support/substitute_settings.h"

namespace kinetrel::test {
namespace {

constexpr double kDegrees = 180 / 3.14159265358979;

class IsenseProgram : public LibraryRun {
 public:
  explicit IsenseProgram(Arguments arguments, Environment environment = {})
      : LibraryRun(6, std::move(arguments), std::move(environment)) {}
};

// The number of the frame that the pose tells, valid for the first two minutes.
long FrameOf(const SharedTrackBlock& block) {
  const double yaw = -block.poses[0][3] * kDegrees;
  const double pitch = -block.poses[0][4] * kDegrees;
  return std::lround((yaw + 180) * 4) + 1440 * std::lround((pitch + 45) * 4);
}

class IsenseRun : public testing::Test {
 protected:
  IsenseSettings settings_;
};

TEST_F(IsenseRun, AThousandFramesReachTheClientOnceEach) {
  IsenseProgram run({"-p", "1"});
  const auto frames = run.Watch(1000);
  ASSERT_FALSE(frames.empty()) << run.program().error();
  EXPECT_GE(frames.back().frameCount - frames.front().frameCount, 1000);
  EXPECT_EQ(frames.front().flags >> TrackFlags::kComponentShift & 0xF, 2U);
  const long ahead = FrameOf(frames.front()) - frames.front().frameCount;
  for (const SharedTrackBlock& block : frames) {
    const long frame = FrameOf(block);
    ASSERT_EQ(frame - block.frameCount, ahead);
    ASSERT_NEAR(block.poses[0][3] * kDegrees, 180 - static_cast<double>(frame % 1440) / 4, 1e-4);
    ASSERT_NEAR(block.poses[0][5] * kDegrees, -90 + static_cast<double>(frame % 720) / 4, 1e-4);
    ASSERT_EQ(block.poses[0][0], 0.0F);
  }
  EXPECT_EQ(run.Stop(), 0);
  const auto calls = settings_.TakeCalls();
  const std::vector<std::string> start(calls.begin(), calls.begin() + 8);
  EXPECT_EQ(start, (std::vector<std::string>{"OpenTracker 1 1 0", "GetCommInfo 1",
                                             "GetTrackerConfig 1 0", "GetStationConfig 1 1 0",
                                             "SetStationConfig 1 1 0 0 1", "GetStationConfig 1 1 0",
                                             "SetStationConfig 1 1 0 0 1", "GetData 1"}));
  const std::vector<std::string> end(calls.end() - 2, calls.end());
  EXPECT_EQ(end, (std::vector<std::string>{"CloseTracker 1", "NumOpenTrackers"}));
}

TEST_F(IsenseRun, ResumesAfterTheTrackerWasLost) {
  IsenseProgram run({"-p", "0"}, {{"KINETREL_ISENSE_FRAMES", "lost@100+90,jump@200+50"}});
  const auto frames = run.Watch(300);
  ASSERT_FALSE(frames.empty());
  long last = -1;
  for (const SharedTrackBlock& block : frames) {
    ASSERT_GT(FrameOf(block), last);
    last = FrameOf(block);
  }
  EXPECT_GE(last, 300);
  EXPECT_EQ(run.Stop(), 0);
}

// One Kinetrel sends records on, and another on the same machine publishes them.
TEST_F(IsenseRun, AnUnpluggedTrackerComesBack) {
  IsenseProgram run({"-p", "1"}, {{"KINETREL_ISENSE_FRAMES", "lost@200+1000000"}});
  EXPECT_TRUE(run.program().ExpectError("The port of InterSense InertiCube3 has gone"));
  EXPECT_TRUE(run.program().ExpectError("InterSense InertiCube3 is back")) << run.error();
  EXPECT_TRUE(run.FramesPass(60));
  EXPECT_EQ(run.Stop(), 0);
}

TEST_F(IsenseRun, ARecordSentOnIsPublishedByTheNextProgram) {
  settings_.Set("MODEL", "8");
  const std::string port = std::to_string(DatagramSocket::Open(0)->port());
  IsenseProgram follower({"-p", port});
  IsenseDevice source;
  ASSERT_EQ(source.OpenPortNumber(1, 0), 1);
  ASSERT_EQ(source.Boot(0), 1);
  ASSERT_TRUE(source.SetControlString(port.c_str()));
  const std::jthread passing([&source](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      source.ReadFrame(nullptr);
      source.Poll();
    }
  });
  auto frames = follower.Watch(300);
  std::erase_if(frames, [](const SharedTrackBlock& block) { return block.poses[0][3] == 0.0F; });
  ASSERT_GT(frames.size(), 100U);
  const long ahead = FrameOf(frames.front()) - frames.front().frameCount;
  for (const SharedTrackBlock& block : frames) ASSERT_EQ(FrameOf(block) - block.frameCount, ahead);
  EXPECT_EQ(follower.Stop(), 0);
}

TEST_F(IsenseRun, ReportsAMissingLibraryAndEnds) {
  IsenseProgram run({"-p", "1"}, {{"KINETREL_ISENSE", "/nowhere/libisense.so"}});
  EXPECT_NE(run.program().Wait(), 0);
  EXPECT_TRUE(run.program().ExpectError("Could not load isense.dll"));
  EXPECT_TRUE(run.program().ExpectError("Tracker(InterSense DLL) failed to boot(-13)."));
}

TEST_F(IsenseRun, StopsInTimeWithoutASender) {
  const int port = DatagramSocket::Open(0)->port();
  IsenseProgram run({"-p", std::to_string(port)});
  EXPECT_FALSE(run.Watch(1).empty());
  EXPECT_EQ(run.Stop(), 0);
}

TEST_F(IsenseRun, TheProgramExportsAllFunctions) {
  IsenseProgram run({"-p", "1"}, {{"KINETREL_ISENSE", KINETREL_ISENSE_NESTING}});
  EXPECT_EQ(run.program().Wait(), 254);
  EXPECT_TRUE(run.program().ExpectError("the program has 20 of them")) << run.program().error();
}

// ---- A library that fails ------------------------------------------------------------------

class IsenseTrouble : public IsenseRun, public testing::WithParamInterface<Trouble> {
 protected:
  bool LibraryIsAskedRepeatedly() {
    return WaitUntil([this] {
      for (const std::string& call : settings_.TakeCalls()) asked_ += call.starts_with("GetData");
      return asked_ > 30;
    });
  }

 private:
  int asked_ = 0;
};

TEST_P(IsenseTrouble, DoesNotKeepTheProgramFromEndingInTime) {
  settings_.Set(GetParam().variable, GetParam().value);
  IsenseProgram run({"-p", "1"});
  if (GetParam().outcome == Outcome::DoesNotStart) {
    EXPECT_EQ(run.program().Wait(), 254);
    return;
  }
  ASSERT_TRUE(run.program().ExpectError("Running ...")) << run.program().error();
  EXPECT_TRUE(GetParam().outcome == Outcome::FramesCome ? run.Watch(60).size() > 1
                                                        : LibraryIsAskedRepeatedly());
  EXPECT_EQ(run.Stop(), 0);
}

Trouble Fails(const char* call, Outcome outcome) { return {call, "FAIL", call, outcome}; }

INSTANTIATE_TEST_SUITE_P(
    With, IsenseTrouble,
    testing::Values(
        Fails("OpenTracker", Outcome::DoesNotStart), Fails("CloseTracker", Outcome::FramesCome),
        Fails("GetCommInfo", Outcome::FramesCome), Fails("GetTrackerConfig", Outcome::DoesNotStart),
        Fails("GetStationConfig", Outcome::FramesCome),
        Fails("SetStationConfig", Outcome::FramesCome), Fails("GetData", Outcome::NoFrames),
        Fails("NumOpenTrackers", Outcome::FramesCome),
        Trouble{"StoppedCounter", "FRAMES", "stall@20+1000000", Outcome::NoFrames},
        Trouble{"JumpingCounter", "FRAMES", "jump@20+1000000", Outcome::FramesCome}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace kinetrel::test

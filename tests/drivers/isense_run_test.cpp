// The substitute library, the program and a client: what the client sees is the substitute's
// motion.
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <optional>
#include <thread>

#include "drivers/isense_device.h"
#include "tests/support/emulated_run.h"
#include "tests/support/isense_settings.h"

namespace kinetrel::test {
namespace {

constexpr double kDegrees = 180 / 3.14159265358979;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::chrono::seconds kTimeToEnd{9};
#else
constexpr std::chrono::seconds kTimeToEnd{3};
#endif

using Environment = std::vector<std::pair<std::string, std::string>>;

class IsenseProgram {
 public:
  explicit IsenseProgram(std::vector<std::string> arguments, Environment environment = {})
      : reader_(slot_.device()) {
    arguments.insert(arguments.begin(), {"-d", "6", "-w", std::to_string(slot_.slot())});
    program_.emplace(
        "kinetrel", arguments,
        ChildProcess::Options{.environment = std::move(environment), .emptyInput = true});
  }

  ChildProcess& program() { return *program_; }

  std::vector<SharedTrackBlock> Watch(int count) { return WatchFrames(reader_, count); }

  int Stop() {
    const auto before = std::chrono::steady_clock::now();
    program_->Signal(SIGINT);
    const int code = program_->Wait(std::chrono::seconds(30));
    EXPECT_LT(std::chrono::steady_clock::now() - before, kTimeToEnd);
    return code;
  }

 private:
  FreeSlot slot_;
  SharedTrackReader reader_;
  std::optional<ChildProcess> program_;
};

// The frame that a pose belongs to, within the two minutes of the tests.
long FrameOf(const SharedTrackBlock& block) {
  const double yaw = -block.poses[0][3] * kDegrees;
  const double pitch = -block.poses[0][4] * kDegrees;
  return std::lround((yaw + 180) * 4) + 1440 * std::lround((pitch + 45) * 4);
}

class IsenseRun : public testing::Test {
 protected:
  IsenseSettings settings_;
};

TEST_F(IsenseRun, AThousandFramesReachTheClientEachOnce) {
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

TEST_F(IsenseRun, ATrackerThatIsLostForAWhileGoesOn) {
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

// What one Kinetrel passes on, another on the same machine publishes.
TEST_F(IsenseRun, APassedOnRecordIsPublishedByTheNextProgram) {
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

TEST_F(IsenseRun, WithoutTheLibrarySaysSoAndEnds) {
  IsenseProgram run({"-p", "1"}, {{"KINETREL_ISENSE", "/nowhere/libisense.so"}});
  EXPECT_NE(run.program().Wait(), 0);
  EXPECT_TRUE(run.program().ExpectError("Could not load isense.dll"));
  EXPECT_TRUE(run.program().ExpectError("Tracker(InterSense DLL) failed to boot(-13)."));
}

TEST_F(IsenseRun, WithoutASourceStopsInTime) {
  const int port = DatagramSocket::Open(0)->port();
  IsenseProgram run({"-p", std::to_string(port)});
  EXPECT_FALSE(run.Watch(1).empty());
  EXPECT_EQ(run.Stop(), 0);
}

TEST_F(IsenseRun, TheProgramHasAllFunctionsForOtherModules) {
  IsenseProgram run({"-p", "1"}, {{"KINETREL_ISENSE", KINETREL_ISENSE_NESTING}});
  EXPECT_EQ(run.program().Wait(), 254);
  EXPECT_TRUE(run.program().ExpectError("the program has 20 of them")) << run.program().error();
}

// ---- A library that fails ------------------------------------------------------------------

enum class Goes { On, Silent, NotAtAll };  // frames come; none do; it does not start

struct Trouble {
  const char* name;
  const char* setting;
  const char* value;
  Goes goes;
};

class IsenseTrouble : public IsenseRun, public testing::WithParamInterface<Trouble> {
 protected:
  bool IsAskedInVain() {
    return WaitUntil([this] {
      for (const std::string& call : settings_.TakeCalls()) asked_ += call.starts_with("GetData");
      return asked_ > 30;
    });
  }

 private:
  int asked_ = 0;
};

TEST_P(IsenseTrouble, CostsNoMoreThanItMustAndTheProgramEndsInTime) {
  settings_.Set(GetParam().setting, GetParam().value);
  IsenseProgram run({"-p", "1"});
  if (GetParam().goes == Goes::NotAtAll) {
    EXPECT_EQ(run.program().Wait(), 254);
    return;
  }
  ASSERT_TRUE(run.program().ExpectError("Running ...")) << run.program().error();
  EXPECT_TRUE(GetParam().goes == Goes::On ? run.Watch(60).size() > 1 : IsAskedInVain());
  EXPECT_EQ(run.Stop(), 0);
}

Trouble Fails(const char* call, Goes goes) { return {call, "FAIL", call, goes}; }

INSTANTIATE_TEST_SUITE_P(
    With, IsenseTrouble,
    testing::Values(Fails("OpenTracker", Goes::NotAtAll), Fails("CloseTracker", Goes::On),
                    Fails("GetCommInfo", Goes::On), Fails("GetTrackerConfig", Goes::NotAtAll),
                    Fails("GetStationConfig", Goes::On), Fails("SetStationConfig", Goes::On),
                    Fails("GetData", Goes::Silent), Fails("NumOpenTrackers", Goes::On),
                    Trouble{"ACounterThatStands", "FRAMES", "stall@20+1000000", Goes::Silent},
                    Trouble{"ATrackerThatIsLost", "FRAMES", "lost@20+1000000", Goes::Silent},
                    Trouble{"ACounterThatJumps", "FRAMES", "jump@20+1000000", Goes::On}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace kinetrel::test

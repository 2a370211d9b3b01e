// The emulated flock, the program and a client: what the client sees is the flock's motion.
#include <gtest/gtest.h>

#include <cmath>

#include "emulators/motion.h"
#include "tests/support/emulated_run.h"

namespace kinetrel::test {
namespace {

constexpr double kRadians = 3.14159265358979 / 180;
constexpr double kLengthStep = 365.76 / 8192;  // cm

// Half a turn is one step beyond the range.
constexpr double kAngleStep = 1.01 * 180.0 / 8192 * kRadians;

struct Run {
  const char* name;
  std::vector<std::string> ofEmulator;
  std::vector<std::string> ofTracker;
  double centimetre;  // in the unit asked for
};

class FlockRun : public testing::TestWithParam<Run> {};

// The ramp's poses tell their frame. As long as the difference to the published count is the same,
// none was lost on the way and none came twice.
TEST_P(FlockRun, EveryFrameReachesTheClient) {
  std::vector<std::string> emulated = GetParam().ofEmulator;
  emulated.insert(emulated.end(), {"--motion", "ramp"});
  EmulatedRun run("flock", 3, emulated, GetParam().ofTracker);
  const auto frames = run.Watch(1000);
  ASSERT_FALSE(frames.empty()) << run.tracker().error();
  EXPECT_GE(frames.back().frameCount - frames.front().frameCount, 1000);
  const auto ramp = MakeRamp();
  const double unit = GetParam().centimetre;
  std::optional<long> ahead;
  for (const SharedTrackBlock& block : frames) {
    const auto& seen = block.poses[0];
    const std::uint64_t frame = RampFrame(seen[0] / unit, seen[2] / unit);
    const MotionPose pose = ramp->At(0, frame, 0);
    const long difference = static_cast<long>(frame) - block.frameCount;
    ASSERT_EQ(difference, ahead.value_or(difference));
    ahead = difference;
    const double step = kLengthStep * unit * 0.51;
    ASSERT_NEAR(seen[0], pose.x * unit, step);
    ASSERT_NEAR(seen[1], pose.y * unit, step);
    ASSERT_NEAR(seen[2], pose.z * unit, step);
    ASSERT_NEAR(std::remainder(seen[3] - pose.azimuth * kRadians, 360 * kRadians), 0, kAngleStep);
    ASSERT_NEAR(seen[4], pose.elevation * kRadians, kAngleStep);
    ASSERT_NEAR(std::remainder(seen[5] - pose.roll * kRadians, 360 * kRadians), 0, kAngleStep);
  }
  EXPECT_EQ(run.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(With, FlockRun,
                         testing::Values(Run{"Streaming", {"--start=half-record"}, {}, 1},
                                         Run{"PolledInInchesAfterHalfACommand",
                                             {"--start=half-command"},
                                             {"-z-", "-u", "0"},
                                             1 / 2.54},
                                         Run{"WholeRecordsInMetresOfABirdThatStreamed",
                                             {"--whole", "--start=streaming"},
                                             {"-u", "2"},
                                             0.01}),
                         [](const auto& row) { return std::string(row.param.name); });

// Every pose that a client sees is one of the ramp, whatever was cut, and they go on.
TEST(FlockFaults, CutRecordsCostThemselvesOnlyAndAPulledPlugIsFollowed) {
  EmulatedRun run("flock", 3,
                  {"--motion", "ramp", "--fault", "cut@/#25", "--fault", "unplug:0.2@#500"});
  const auto frames = run.Watch(900);
  ASSERT_FALSE(frames.empty()) << run.tracker().error();
  EXPECT_GE(frames.back().frameCount - frames.front().frameCount, 900);
  long last = -1;
  for (const SharedTrackBlock& block : frames) {
    const auto& seen = block.poses[0];
    const auto frame = static_cast<long>(RampFrame(seen[0], seen[2]));
    ASSERT_GT(frame, last);
    ASSERT_NEAR(seen[4], static_cast<double>(frame % 90) * kRadians, kAngleStep);
    last = frame;
  }
  EXPECT_TRUE(run.tracker().ExpectError("The port of Ascension Flock has gone"));
  EXPECT_TRUE(run.tracker().ExpectError("Ascension Flock is back after"));
  EXPECT_EQ(run.Stop(), 0);
}

}  // namespace
}  // namespace kinetrel::test

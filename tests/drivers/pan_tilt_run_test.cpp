// The emulated pan-tilt head, the program and a client: what the client sees is the head's motion.
#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/emulated_run.h"

namespace kinetrel::test {
namespace {

constexpr double kDegrees = 180 / 3.14159265358979;
constexpr double kStep = 360.0 / 4000;  // degrees

// Of the ramp: azimuth grows by a degree with each frame and turns over after 360.
long FrameOf(const SharedTrackBlock& block) {
  return std::lround(block.poses[0][3] * kDegrees) + 180;
}

void ExpectPoseOfTheRamp(const SharedTrackBlock& block) {
  const auto& seen = block.poses[0];
  const long frame = FrameOf(block);
  EXPECT_NEAR(seen[3] * kDegrees, static_cast<double>(frame - 180), kStep * 0.51);
  EXPECT_NEAR(seen[4] * kDegrees, static_cast<double>(frame % 90), kStep * 0.51);
  EXPECT_EQ(seen[0], 0.0F);
}

class PanTiltRun : public testing::TestWithParam<const char*> {};

// A head answers some 68 times a second, so 400 frames must do.
TEST_P(PanTiltRun, EveryFrameReachesTheClient) {
  EmulatedRun run("pan-tilt", 1, {"--motion", "ramp", "--start", GetParam()});
  const auto frames = run.Watch(400);
  ASSERT_FALSE(frames.empty()) << run.tracker().error();
  EXPECT_GE(frames.back().frameCount - frames.front().frameCount, 400);
  // Of the first two answers, to the boot and to the first poll, the first one counts.
  constexpr int kFromHere = 2;
  std::optional<long> ahead;
  for (const SharedTrackBlock& block : frames) {
    ExpectPoseOfTheRamp(block);
    if (block.frameCount < kFromHere) continue;
    const long difference = (FrameOf(block) - block.frameCount % 360 + 360) % 360;
    ASSERT_EQ(difference, ahead.value_or(difference)) << block.frameCount;
    ahead = difference;
  }
  EXPECT_TRUE(run.tracker().ExpectError("Streaming not supported on Fakespace PanTiltHead."));
  EXPECT_EQ(run.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(With, PanTiltRun, testing::Values("idle", "half-answer"),
                         [](const auto& row) {
                           return std::string(row.param) == "idle" ? "FreshHead"
                                                                   : "HeadThatStillAnswers";
                         });

TEST(PanTiltFaults, DamagedAnswersAreDroppedAndAPulledPlugIsFollowed) {
  EmulatedRun run("pan-tilt", 1,
                  {"--motion", "ramp", "--fault", "cut@/#20", "--fault", "noise:3@/#33", "--fault",
                   "unplug:0.2@#200"});
  const auto frames = run.Watch(300);
  ASSERT_FALSE(frames.empty()) << run.tracker().error();
  EXPECT_GE(frames.back().frameCount - frames.front().frameCount, 300);
  for (const SharedTrackBlock& block : frames) ExpectPoseOfTheRamp(block);
  EXPECT_TRUE(run.tracker().ExpectError("Fakespace PanTiltHead is back after"));
  EXPECT_EQ(run.Stop(), 0);
}

}  // namespace
}  // namespace kinetrel::test

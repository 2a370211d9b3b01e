#include "emulate/motion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

namespace kinetrel::test {
using namespace emulate;
namespace {

TEST(Motion, ACircleHasItsRadiusAndPeriod) {
  const auto motion = ParseMotion("circle:25,4").motion;
  ASSERT_TRUE(motion);
  for (unsigned station = 0; station < 4; ++station) {
    for (int i = 0; i < 100; ++i) {
      const MotionPose pose = motion->At(station, 0, 0.1 * i);
      EXPECT_NEAR(std::hypot(pose.x - 40, pose.y), 25, 1e-9);
      EXPECT_LE(std::abs(pose.azimuth), 180);
      EXPECT_NEAR(pose.x, motion->At(station, 0, 0.1 * i + 4).x, 1e-9);
      EXPECT_NEAR(pose.x, motion->At(station + 1, 0, 0.1 * i - 1).x, 1e-9);
    }
  }
}

TEST(Motion, BadTextIsRefusedWithAReason) {
  EXPECT_EQ(ParseMotion("hold:1,2,3,4,5,6").motion->At(9, 9, 9), (MotionPose{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(ParseMotion("hold: -1, 2.5 ,3").motion->At(0, 0, 0), (MotionPose{-1, 2.5, 3}));
  for (const char* const text :
       {"", "spiral", "hold", "hold:1,2", "hold:1,2,x", "hold:1,2,3,4,5,6,7", "hold:1,2,nan",
        "circle:1,0", "circle:,", "rampage", "file:/nowhere/at/all"}) {
    const MadeMotion made = ParseMotion(text);
    EXPECT_FALSE(made.motion) << text;
    EXPECT_NE(made.complaint, "") << text;
  }
}

// The same pose gets the same noise; over many frames its size is the one asked for.
TEST(Motion, NoiseHasItsSizeOnEachAxis) {
  const MotionPose still{10, 20, 30, 170, 5, -170};
  const auto noisy = MakeNoisy(MakeHold(still), *ParsePoseNoise("0.5,2"), 1);
  EXPECT_EQ(noisy->At(1, 7, 0), noisy->At(1, 7, 0));
  EXPECT_NE(noisy->At(1, 7, 0), noisy->At(2, 7, 0));
  constexpr std::uint64_t kFrames = 40'000;
  double x = 0, squares = 0, azimuths = 0, both = 0;
  for (std::uint64_t i = 0; i < kFrames; ++i) {
    const MotionPose pose = noisy->At(0, i, 0);
    x += (pose.x - 10) / kFrames;
    squares += (pose.x - 10) * (pose.x - 10) / kFrames;
    azimuths += std::pow(std::remainder(pose.azimuth - 170, 360), 2) / kFrames;
    both += (pose.x - 10) * (pose.y - 20) / kFrames;
    ASSERT_LE(std::abs(pose.azimuth), 180);
  }
  EXPECT_NEAR(x, 0, 0.01);
  EXPECT_NEAR(std::sqrt(squares), 0.5, 0.01);
  EXPECT_NEAR(std::sqrt(azimuths), 2, 0.04);
  EXPECT_NEAR(both, 0, 0.01);
  for (const char* const text : {"", "x", "1,", "-1", "1,2,3", "101"}) {
    EXPECT_FALSE(ParsePoseNoise(text)) << text;
  }
}

MadeMotion Read(const std::string& text) {
  std::istringstream stream(text);
  return ReadMotion(stream);
}

TEST(MotionFile, RowsHoldUntilTheNextOneAndStartAgain) {
  const auto motion = Read(
                          "# by hand\n\n"
                          "time,station,x,azimuth\r\n"
                          "0,1,10,0\n"
                          "0.5, 1, 20, 90\n"
                          "0,0,-1,0\n")
                          .motion;
  ASSERT_TRUE(motion);
  EXPECT_EQ(motion->At(0, 7, 0.49).x, 10);
  EXPECT_EQ(motion->At(0, 7, 0.5), (MotionPose{20, 0, 0, 90, 0, 0}));
  EXPECT_EQ(motion->At(0, 7, 1.01).x, 10);  // the last row held for as long as the one before
  EXPECT_EQ(motion->At(2, 7, 0).x, -1);     // a station without rows of its own
}

TEST(MotionFile, RowsAreFramesWithoutATime) {
  const auto motion = Read("x,y\n1,2\n3,4\n").motion;
  ASSERT_TRUE(motion);
  EXPECT_EQ(motion->At(0, 1, 99).y, 4);
  EXPECT_EQ(motion->At(0, 2, 99).y, 2);
  const auto framed = Read("frame,x\n0,1\n10,2\n").motion;
  EXPECT_EQ(framed->At(0, 9, 0).x, 1);
  EXPECT_EQ(framed->At(0, 10, 0).x, 2);
  EXPECT_EQ(framed->At(0, 11, 0).x, 1);
}

TEST(MotionFile, BadRowsAreReportedWithTheirLine) {
  for (const auto& [text, complaint] :
       std::vector<std::pair<std::string, std::string>>{{"", "no poses"},
                                                        {"x,y\n", "no poses"},
                                                        {"x,why\n1,2\n", "line 1"},
                                                        {"x,y\n1\n", "line 2"},
                                                        {"x,y\n1,2\n1,2,3\n", "line 3"},
                                                        {"x\nnan\n", "line 2"},
                                                        {"time,x\n1,0\n1,0\n", "line 3"},
                                                        {"time,x\n-1,0\n", "line 2"},
                                                        {"station,x\n1.5,0\n", "line 2"},
                                                        {"station,x\n99,0\n", "line 2"}}) {
    const MadeMotion made = Read(text);
    EXPECT_FALSE(made.motion) << text;
    EXPECT_NE(made.complaint.find(complaint), std::string::npos) << text << ": " << made.complaint;
  }
}

}  // namespace
}  // namespace kinetrel::test

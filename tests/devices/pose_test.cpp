#include "devices/pose.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace kinetrel {
namespace {

constexpr float kPiF = 3.14159265F;
constexpr float kHalfPiF = kPiF / 2;
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

struct Angles {
  const char* name;
  std::array<float, 3> given;
  std::array<float, 3> normal;
};

class NormalizedEuler : public testing::TestWithParam<Angles> {};

TEST_P(NormalizedEuler, IsTheSameDirection) {
  std::array<float, 3> angles = GetParam().given;
  NormalizeEuler(angles.data());
  for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(angles[i], GetParam().normal[i], 2e-6) << i;
}

INSTANTIATE_TEST_SUITE_P(
    Angles, NormalizedEuler,
    testing::Values(Angles{"Inside", {1, -1, 2}, {1, -1, 2}},
                    Angles{"YawJustPastPi", {3.2F, 0, 0}, {3.2F - 2 * kPiF, 0, 0}},
                    Angles{"YawTurnsBackwards", {-9, 0, 0}, {-9 + 2 * kPiF, 0, 0}},
                    Angles{"YawAtPiStays", {kPiF, 0, 0}, {kPiF, 0, 0}},
                    Angles{"RollAtPiStays", {0, 0, kPiF}, {0, 0, kPiF}},
                    Angles{"RollAtMinusPiStays", {0, 0, -kPiF}, {0, 0, -kPiF}},
                    Angles{"RollManyTurns", {0, 0, 6 * kPiF + 1}, {0, 0, 1}},
                    Angles{"PitchAtTheTopStays", {0.5F, kHalfPiF, 0.25F}, {0.5F, kHalfPiF, 0.25F}},
                    Angles{"PitchAtTheBottomStays", {0.5F, -kHalfPiF, 0}, {0.5F, -kHalfPiF, 0}},
                    Angles{"PitchOverTheTopTurnsYaw", {0, 2, 0.25F}, {kPiF, kPiF - 2, 0.25F}},
                    Angles{
                        "PitchUnderTheBottomTurnsYaw", {1, -2, 0.25F}, {1 - kPiF, 2 - kPiF, 0.25F}},
                    Angles{"PitchAtPiComesRound", {0, kPiF, 0}, {kPiF, 0, 0}},
                    Angles{"PitchBeyondATurn", {0, 2 * kPiF + 0.5F, 0}, {0, 0.5F, 0}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(NormalizeEuler, EveryResultIsWithinItsBounds) {
  for (int i = -4000; i <= 4000; ++i) {
    const float angle = static_cast<float>(i) * 0.00314159265F;
    std::array<float, 3> angles = {angle, angle, angle};
    NormalizeEuler(angles.data());
    EXPECT_LE(std::abs(angles[0]), kPiF);
    EXPECT_LE(std::abs(angles[1]), kHalfPiF);
    EXPECT_LE(std::abs(angles[2]), kPiF);
  }
}

TEST(NormalizeEuler, AnglesThatAreNoNumbersStay) {
  std::array<float, 3> angles = {9, kNan, 9};
  NormalizeEuler(angles.data());
  EXPECT_EQ(angles[0], 9);
  EXPECT_TRUE(std::isnan(angles[1]));
  EXPECT_EQ(angles[2], 9);
}

TEST(AddPoseOffset, AddsAllSixAndNormalizes) {
  Pose pose = {1, 2, 3, 3, 0.1F, 0.2F};
  AddPoseOffset(pose.data(), Pose{10, 20, 30, 1, 0.2F, 0.3F}.data());
  const Pose expected = {11, 22, 33, 4 - 2 * kPiF, 0.3F, 0.5F};
  for (std::size_t i = 0; i < 6; ++i) EXPECT_NEAR(pose[i], expected[i], 1e-6) << i;
}

TEST(EulerToQuaternion, TurnsAboutZThenYThenX) {
  struct Row {
    std::array<float, 3> angles;
    Quaternion expected;
  };
  const float h = std::sqrt(0.5F);
  for (const Row& row : {Row{{0, 0, 0}, {1, 0, 0, 0}}, Row{{kHalfPiF, 0, 0}, {h, 0, 0, h}},
                         Row{{0, kHalfPiF, 0}, {h, 0, h, 0}}, Row{{0, 0, kHalfPiF}, {h, h, 0, 0}},
                         Row{{kHalfPiF, kHalfPiF, 0}, {0.5F, -0.5F, 0.5F, 0.5F}},
                         Row{{0, kHalfPiF, kHalfPiF}, {0.5F, 0.5F, 0.5F, -0.5F}},
                         Row{{2 * kPiF, 0, 0}, {-1, 0, 0, 0}}}) {
    const Quaternion got = EulerToQuaternion(row.angles.data());
    for (std::size_t i = 0; i < 4; ++i) EXPECT_NEAR(got[i], row.expected[i], 1e-6) << i;
  }
}

}  // namespace
}  // namespace kinetrel

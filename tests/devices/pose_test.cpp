#include "devices/pose.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "tests/support/rotation.h"

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
    testing::Values(Angles{"YawJustPastPi", {3.2F, 0, 0}, {3.2F - 2 * kPiF, 0, 0}},
                    Angles{"YawAtPiStays", {kPiF, 0, 0}, {kPiF, 0, 0}},
                    Angles{"RollAtPiStays", {0, 0, kPiF}, {0, 0, kPiF}},
                    Angles{"RollAtMinusPiStays", {0, 0, -kPiF}, {0, 0, -kPiF}},
                    Angles{"RollManyTurns", {0, 0, 6 * kPiF + 1}, {0, 0, 1}},
                    Angles{"PitchAtTheTopStays", {0.5F, kHalfPiF, 0.25F}, {0.5F, kHalfPiF, 0.25F}},
                    Angles{"PitchOverTheTopTurnsYaw", {0, 2, 0.25F}, {kPiF, kPiF - 2, 0.25F}},
                    Angles{
                        "PitchUnderTheBottomTurnsYaw", {1, -2, 0.25F}, {1 - kPiF, 2 - kPiF, 0.25F}},
                    Angles{"PitchBeyondATurn", {0, 2 * kPiF + 0.5F, 0}, {0, 0.5F, 0}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(NormalizeEuler, ANanAngleDoesNotAffectTheOthers) {
  std::array<float, 3> angles = {4, kNan, -4};
  NormalizeEuler(angles.data());
  EXPECT_NEAR(angles[0], 4 - 2 * kPiF, 2e-6);
  EXPECT_TRUE(std::isnan(angles[1]));
  EXPECT_NEAR(angles[2], 2 * kPiF - 4, 2e-6);
}

TEST(QuaternionToEuler, IsTheSameRotationAndTheSameAngles) {
  for (int i = 0; i < 17 * 15 * 17; ++i) {
    const std::array<float, 3> angles = {static_cast<float>(i % 17 - 8) * 0.39F,
                                         static_cast<float>(i / 17 % 15 - 7) * 0.22F,
                                         static_cast<float>(i / 17 / 15 - 8) * 0.39F};
    Quaternion q = EulerToQuaternion(angles.data());
    const std::array<float, 3> got = QuaternionToEuler(q.data());
    EXPECT_LT(Distance(test::RotationOf(got), test::RotationOf(angles)), 1e-6) << i;
    for (std::size_t k = 0; k < 3; ++k) ASSERT_NEAR(got[k], angles[k], 2e-5) << i << ' ' << k;
  }
}

TEST(QuaternionToEuler, StraightUpAndDownHasNoYawAndTurnsAlike) {
  for (const float pitch : {kHalfPiF, -kHalfPiF}) {
    for (const float yaw : {-2.5F, -1.0F, 0.0F, 0.3F, kHalfPiF, 3.0F}) {
      const std::array<float, 3> angles = {yaw, pitch, 0.2F};
      Quaternion q = EulerToQuaternion(angles.data());
      const std::array<float, 3> got = QuaternionToEuler(q.data());
      EXPECT_EQ(got[0], 0) << yaw;
      EXPECT_NEAR(got[1], pitch, 1e-6) << yaw;
      EXPECT_LT(Distance(test::RotationOf(got), test::RotationOf(angles)), 1e-6) << yaw;
    }
  }
}

}  // namespace
}  // namespace kinetrel

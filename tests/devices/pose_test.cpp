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

TEST(NormalizeEuler, ANanAngleDoesNotAffectTheOthers) {
  std::array<float, 3> angles = {4, kNan, -4};
  NormalizeEuler(angles.data());
  EXPECT_NEAR(angles[0], 4 - 2 * kPiF, 2e-6);
  EXPECT_TRUE(std::isnan(angles[1]));
  EXPECT_NEAR(angles[2], 2 * kPiF - 4, 2e-6);
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

TEST(QuaternionToEuler, NormalisesTheQuaternion) {
  struct Row {
    Quaternion given, unit;
    std::array<float, 3> angles;
  };
  const float h = std::sqrt(0.5F);
  for (const Row& row :
       {Row{{1, 0, 0, 0}, {1, 0, 0, 0}, {0, 0, 0}}, Row{{-7, 0, 0, 0}, {-1, 0, 0, 0}, {0, 0, 0}},
        Row{{1e30F, 0, 0, 1e30F}, {h, 0, 0, h}, {kHalfPiF, 0, 0}},
        Row{{1e-30F, 1e-30F, 0, 0}, {h, h, 0, 0}, {0, 0, kHalfPiF}},
        Row{{h, 0, h, 0}, {h, 0, h, 0}, {0, kHalfPiF, 0}},
        Row{{0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0}}}) {
    Quaternion q = row.given;
    const std::array<float, 3> got = QuaternionToEuler(q.data());
    for (std::size_t i = 0; i < 4; ++i) EXPECT_NEAR(q[i], row.unit[i], 1e-6) << row.given[0];
    for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(got[i], row.angles[i], 1e-6) << row.given[0];
  }
}

TEST(UnitProduct, TurnsByTheSecondThenByTheFirst) {
  const std::array<float, 3> a = {0.4F, -0.7F, 2.0F};
  const std::array<float, 3> b = {-2.9F, 1.1F, 0.5F};
  Quaternion left = EulerToQuaternion(a.data());
  for (float& part : left) part *= 5;
  const Quaternion got = UnitProduct(left.data(), EulerToQuaternion(b.data()).data());
  EXPECT_LT(Distance(test::RotationOf(got), test::RotationOf(a) * test::RotationOf(b)), 1e-6);
  EXPECT_EQ(UnitProduct(Quaternion{}.data(), got.data()), Quaternion{});
}

}  // namespace
}  // namespace kinetrel

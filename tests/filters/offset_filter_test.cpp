#include "filters/offset_filter.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "tests/support/allocation_counter.h"
#include "tests/support/rotation.h"

namespace kinetrel {
namespace {

using test::RotationOf;
using Xyz = std::array<float, 3>;

constexpr float kDegree = 0.0174532925F;

struct Offset {
  const char* name;
  Xyz angles;  // radians
};

class Turning : public testing::TestWithParam<std::tuple<Offset, bool, bool>> {
 protected:
  Turning() {
    filter_.SetEulerOffset(Angles().data());
    EXPECT_TRUE(filter_.SetAttributeInt(4, Pre() ? -3 : 0));
    EXPECT_TRUE(filter_.SetAttributeInt(5, Subtract() ? 1 : 0));
    int subtract = 9;
    EXPECT_TRUE(filter_.GetAttributeInt(5, &subtract));
    EXPECT_EQ(subtract, Subtract() ? 1 : 0);
  }

  const Xyz& Angles() { return std::get<0>(GetParam()).angles; }
  bool Pre() { return std::get<1>(GetParam()); }
  bool Subtract() { return std::get<2>(GetParam()); }

  test::Matrix Expected(const Xyz& pose) {
    const test::Matrix offset =
        Subtract() ? Transposed(RotationOf(Angles())) : RotationOf(Angles());
    return Pre() ? offset * RotationOf(pose) : RotationOf(pose) * offset;
  }

  static constexpr Xyz kPoses[] = {{0, 0, 0}, {0.4F, -0.7F, 2}, {-3, 1.2F, -1}, {1.5F, 0, 3.1F}};
  OffsetFilter filter_;
};

// However the offset and the pose are given: as angles, or as a quaternion of any length.
TEST_P(Turning, IsAProductOfRotations) {
  Quaternion given = EulerToQuaternion(Angles().data());
  for (float& part : given) part *= -3;
  for (const bool asQuaternion : {false, true}) {
    if (asQuaternion) filter_.SetQtnOffset(given.data());
    for (const Xyz& pose : kPoses) {
      Quaternion q = EulerToQuaternion(pose.data());
      filter_.SetQuaternion(q.data());
      EXPECT_LT(Distance(RotationOf(q), Expected(pose)), 1e-6);
      EXPECT_EQ(q, filter_.orientation());
      Xyz angles = pose;
      filter_.SetEuler(angles.data());
      EXPECT_LT(Distance(RotationOf(angles), Expected(pose)), 1e-6);
      EXPECT_LT(Distance(RotationOf(filter_.orientation()), Expected(pose)), 1e-6);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Offsets, Turning,
                         testing::Combine(testing::Values(Offset{"YawPitch", {0.5F, -0.3F, 0}},
                                                          Offset{"PitchRoll", {0, 1.4F, 2.9F}},
                                                          Offset{"All", {-2, 0.9F, -0.1F}}),
                                          testing::Bool(), testing::Bool()),
                         [](const auto& row) {
                           return std::string(std::get<0>(row.param).name) +
                                  (std::get<1>(row.param) ? "Before" : "After") +
                                  (std::get<2>(row.param) ? "Subtracted" : "Added");
                         });

// ---- What is not turned through quaternions ------------------------------------------------

TEST(OffsetFilter, WithoutOffsetsNothingChanges) {
  OffsetFilter filter;
  Xyz p = {1, 2, 3};
  Quaternion q = {3, 0, 4, 0};  // not even its length
  filter.SetPose(p.data(), q.data());
  EXPECT_EQ(p, (Xyz{1, 2, 3}));
  EXPECT_EQ(q, (Quaternion{3, 0, 4, 0}));
  Xyz angles = {9, 8, 7};
  filter.SetPositionEuler(p.data(), angles.data());
  EXPECT_EQ(angles, (Xyz{9, 8, 7}));

  filter.SetQtnOffset(Quaternion{}.data());
  filter.FilterQuaternion(q.data());
  EXPECT_EQ(q, (Quaternion{3, 0, 4, 0}));
}

TEST(OffsetFilter, ShiftsPositionsEitherWay) {
  OffsetFilter filter;
  filter.SetPositionOffset(Xyz{1, 2, 3}.data());
  for (const bool pre : {false, true}) {
    filter.SetPreTransform(pre);
    filter.SetSubtract(true);
    Xyz p = {10, 10, 10};
    EXPECT_EQ(filter.SetPosition(p.data())[2], 7);
    EXPECT_EQ(p, (Xyz{9, 8, 7}));
    filter.SetSubtract(false);
    p = {10, 10, 10};
    Quaternion q = kIdentityQuaternion;
    filter.SetPose(p.data(), q.data());
    EXPECT_EQ(p, (Xyz{11, 12, 13}));
    EXPECT_EQ(filter.position(), p);
  }
}

TEST(OffsetFilter, AnOffsetAboutOneAxisIsAddedToThatAngleAlone) {
  for (std::size_t axis = 0; axis < 3; ++axis) {
    OffsetFilter filter;
    Xyz offset{};
    offset[axis] = 10 * kDegree;
    filter.SetEulerOffset(offset.data());
    Xyz angles = {3.1F, 0.2F, 0.3F};
    filter.SetEuler(angles.data());
    EXPECT_NEAR(angles[axis], Xyz({3.1F, 0.2F, 0.3F})[axis] - 10 * kDegree, 1e-6);
    filter.SetSubtract(false);
    filter.SetEuler(angles.data());
    filter.SetEuler(angles.data());
    for (std::size_t i = 0; i < 3; ++i) {
      const float expected = Xyz({3.1F, 0.2F, 0.3F})[i] + (i == axis ? 10 * kDegree : 0);
      EXPECT_NEAR(angles[i], expected, 1e-6) << axis << i;  // past pi, too
    }
    EXPECT_EQ(filter.orientation(), Quaternion{});
    const Xyz before = angles;
    Xyz p = {5, 5, 5};
    filter.Enable(false);
    filter.SetPositionEuler(p.data(), angles.data());
    filter.SetEuler(angles.data());
    EXPECT_EQ(angles, before);
  }
}

// ---- Attributes by number ------------------------------------------------------------------

TEST(OffsetFilter, AnglesAreDegreesOutsideAndOneRotationWithTheQuaternion) {
  OffsetFilter filter;
  const float h = std::sqrt(0.5F);
  std::array<float, 4> got{};
  ASSERT_TRUE(filter.SetAttributeFloatArray(2, 3, Xyz{90, 0, 0}.data()));
  ASSERT_TRUE(filter.GetAttributeFloatArray(2, 3, got.data()));
  EXPECT_EQ(got, (std::array<float, 4>{90, 0, 0, 0}));
  ASSERT_TRUE(filter.GetAttributeFloatArray(3, 4, got.data()));
  for (std::size_t i = 0; i < 4; ++i) EXPECT_NEAR(got[i], (Quaternion{h, 0, 0, h})[i], 1e-6);

  ASSERT_TRUE(filter.SetAttributeFloatArray(2, 3, Xyz{350, 0, 0}.data()));
  ASSERT_TRUE(filter.GetAttributeFloatArray(2, 3, got.data()));
  EXPECT_NEAR(got[0], -10, 1e-4);

  ASSERT_TRUE(filter.SetAttributeFloatArray(3, 4, Quaternion{2, 2, 0, 0}.data()));
  ASSERT_TRUE(filter.GetAttributeFloatArray(3, 4, got.data()));
  EXPECT_EQ(got, (std::array<float, 4>{2, 2, 0, 0}));  // as it was given
  ASSERT_TRUE(filter.GetAttributeFloatArray(2, 3, got.data()));
  EXPECT_NEAR(got[2], 90, 1e-4);
}

// No refused call writes to the filter or to the caller's memory.
TEST(OffsetFilter, RefusesWhatDoesNotFit) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float noNumbers[] = {1, nan, 1, 1};
  OffsetFilter filter;
  std::array<float, 4> four = {7, 7, 7, 7};
  char text = '#';
  int number = 7;
  EXPECT_FALSE(filter.SetAttributeInt(6, 1));
  EXPECT_FALSE(filter.GetAttributeInt(1, &number));
  EXPECT_FALSE(filter.SetAttributeFloatArray(3, 3, four.data()));
  EXPECT_FALSE(filter.SetAttributeFloatArray(0, -1, four.data()));  // a text has count -1
  EXPECT_FALSE(filter.SetAttributeFloatArray(1, 3, nullptr));
  for (const int id : {1, 3}) {
    EXPECT_FALSE(filter.SetAttributeFloatArray(id, id == 3 ? 4 : 3, noNumbers));
  }
  EXPECT_FALSE(filter.GetAttributeFloatArray(2, 4, four.data()));
  EXPECT_FALSE(filter.GetAttributeString(0, 0, &text));
  EXPECT_FALSE(filter.GetAvailableAttributes(6, nullptr));
  EXPECT_EQ(four, (std::array<float, 4>{7, 7, 7, 7}));
  EXPECT_EQ(number, 7);
  EXPECT_EQ(text, '#');
  for (const int id : {1, 2}) {
    ASSERT_TRUE(filter.GetAttributeFloatArray(id, 3, four.data()));
    EXPECT_EQ(four[0], 0);
  }
}

// ---- Memory --------------------------------------------------------------------------------

TEST(OffsetFilter, FilteringAllocatesNothing) {
  OffsetFilter filter;
  Xyz p{};
  Xyz angles{};
  Quaternion q = kIdentityQuaternion;
  test::CountAllocations(true);
  filter.SetPositionOffset(p.data());
  filter.SetEulerOffset(Xyz{1, 1, 1}.data());
  filter.SetQtnOffset(Quaternion{1, 1, 1, 1}.data());
  filter.SetPose(p.data(), q.data());
  filter.SetPositionEuler(p.data(), angles.data());
  filter.SetQuaternion(q.data());
  test::CountAllocations(false);
  EXPECT_EQ(test::CountedAllocations(), 0);
}

}  // namespace
}  // namespace kinetrel

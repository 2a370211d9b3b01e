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
    filter_.SetPreTransform(Pre());
    filter_.SetSubtract(Subtract());
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
  }
}

TEST(OffsetFilter, ADisabledFilterOnlyStoresPoses) {
  OffsetFilter filter;
  filter.SetPositionOffset(Xyz{1, 1, 1}.data());
  filter.SetEulerOffset(Xyz{1, 1, 0}.data());
  filter.Enable(false);
  Xyz p = {5, 5, 5};
  Xyz angles = {0.1F, 0.2F, 0.3F};
  filter.SetPositionEuler(p.data(), angles.data());
  filter.SetEuler(angles.data());
  EXPECT_EQ(p, (Xyz{5, 5, 5}));
  EXPECT_EQ(angles, (Xyz{0.1F, 0.2F, 0.3F}));
  EXPECT_EQ(filter.position(), Xyz{});  // angles are not even stored

  Quaternion q = {0, 1, 0, 0};
  EXPECT_EQ(filter.SetPose(p.data(), q.data())[1], 1);
  EXPECT_EQ(p, (Xyz{5, 5, 5}));
  EXPECT_EQ(q, (Quaternion{0, 1, 0, 0}));
  EXPECT_EQ(filter.position(), p);
}

// ---- Attributes by number ------------------------------------------------------------------

TEST(OffsetFilter, DescribesItsAttributes) {
  OffsetFilter filter;
  int count = 0;
  ASSERT_TRUE(filter.GetNumAvailableAttributes(&count));
  ASSERT_EQ(count, 6);
  std::array<AttributeInfo, 10> rows;
  rows[6].id = 77;
  ASSERT_TRUE(filter.GetAvailableAttributes(10, rows.data()));
  EXPECT_EQ(rows[6].id, 77);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(rows[static_cast<std::size_t>(i)].id, i);
  EXPECT_STREQ(rows[3].name, "Qtn Offset");
  EXPECT_EQ(rows[3].count, 4);

  AttributeInfo untouched{.id = 77};
  for (const int none : {0, -1, std::numeric_limits<int>::min()}) {
    EXPECT_TRUE(filter.GetAvailableAttributes(none, &untouched));
  }
  EXPECT_EQ(untouched.id, 77);
}

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

TEST(OffsetFilter, TheNameIsCutToTheBuffer) {
  struct Row {
    int size;
    std::string expected;
  };
  for (const Row& row : {Row{1, "O###############"}, Row{13, "Offset Filter###"},
                         Row{14, std::string("Offset Filter\0##", 16)},
                         Row{16, std::string("Offset Filter\0##", 16)}}) {
    std::string text(16, '#');
    EXPECT_TRUE(OffsetFilter().GetAttributeString(0, row.size, text.data()));
    EXPECT_EQ(text, row.expected) << row.size;
  }
}

TEST(OffsetFilter, NumbersSwitchOnAndOff) {
  OffsetFilter filter;
  for (const int id : {4, 5}) {
    int value = 9;
    EXPECT_TRUE(filter.GetAttributeInt(id, &value));
    EXPECT_EQ(value, id - 4);
    EXPECT_TRUE(filter.SetAttributeInt(id, id == 4 ? -3 : 0));
    EXPECT_TRUE(filter.GetAttributeInt(id, &value));
    EXPECT_EQ(value, 5 - id);
  }
}

// What a refused call must leave alone.
struct Scratch {
  std::array<float, 4> four = {7, 7, 7, 7};
  int number = 7;
  char text = '#';
  bool operator==(const Scratch&) const = default;
};

struct Refusal {
  const char* name;
  bool (*call)(OffsetFilter& f, Scratch& s);
};

class OffsetFilterRefuses : public testing::TestWithParam<Refusal> {};

TEST_P(OffsetFilterRefuses, AndChangesNothing) {
  OffsetFilter filter;
  Scratch scratch;
  EXPECT_FALSE(GetParam().call(filter, scratch));
  EXPECT_EQ(scratch, Scratch{});
  std::array<float, 4> offset{};
  for (const int id : {1, 2, 3}) {
    ASSERT_TRUE(filter.GetAttributeFloatArray(id, id == 3 ? 4 : 3, offset.data()));
    EXPECT_EQ(offset[0], id == 3 ? 1 : 0);
    EXPECT_EQ(offset[1], 0);
  }
}

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNoNumbers[] = {1, kNan, 1};
constexpr float kEndless[] = {1, 0, 0, kInfinity};

template <int id, int count>
bool SetFloats(OffsetFilter& filter, Scratch& scratch) {
  return filter.SetAttributeFloatArray(id, count, scratch.four.data());
}
template <int id, int count>
bool GetFloats(OffsetFilter& filter, Scratch& scratch) {
  return filter.GetAttributeFloatArray(id, count, scratch.four.data());
}
template <int id, int size>
bool GetText(OffsetFilter& filter, Scratch& scratch) {
  return filter.GetAttributeString(id, size, &scratch.text);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, OffsetFilterRefuses,
    testing::Values(
        Refusal{"SetNumberAbove", [](auto& f, auto&) { return f.SetAttributeInt(6, 1); }},
        Refusal{"SetText", [](auto& f, auto&) { return f.SetAttributeString(0, 1, "x"); }},
        Refusal{"SetTooFew", SetFloats<3, 3>}, Refusal{"SetNone", SetFloats<1, 0>},
        Refusal{"SetFloatsOfAText", SetFloats<0, -1>},  // a text has count -1
        Refusal{"SetNull", [](auto& f, auto&) { return f.SetAttributeFloatArray(1, 3, nullptr); }},
        Refusal{"SetNaN",
                [](auto& f, auto&) { return f.SetAttributeFloatArray(1, 3, kNoNumbers); }},
        Refusal{"SetEndless",
                [](auto& f, auto&) { return f.SetAttributeFloatArray(3, 4, kEndless); }},
        Refusal{"GetNumberOfFloats",
                [](auto& f, auto& s) { return f.GetAttributeInt(1, &s.number); }},
        Refusal{"GetTooMany", GetFloats<2, 4>},
        Refusal{"GetToNull",
                [](auto& f, auto&) { return f.GetAttributeFloatArray(1, 3, nullptr); }},
        Refusal{"GetTextWithoutRoom", GetText<0, 0>},
        Refusal{"GetTextToNull",
                [](auto& f, auto&) { return f.GetAttributeString(0, 5, nullptr); }},
        Refusal{"RowsToNull", [](auto& f, auto&) { return f.GetAvailableAttributes(6, nullptr); }}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Copies and memory ---------------------------------------------------------------------

TEST(OffsetFilter, ACloneIsEqualAndEnabled) {
  OffsetFilter filter;
  filter.SetPositionOffset(Xyz{1, 2, 3}.data());
  filter.SetSubtract(false);
  filter.SetName("Mount");
  filter.Enable(false);
  const std::unique_ptr<Filter> clone = filter.Clone();
  EXPECT_TRUE(clone->IsEnabled());
  EXPECT_STREQ(clone->GetName(), "Mount");
  EXPECT_EQ(clone->GetType(), FilterType::Offset);
  Xyz p{};
  clone->SetPosition(p.data());
  EXPECT_EQ(p, (Xyz{1, 2, 3}));

  OffsetFilter assigned;
  assigned = filter;
  EXPECT_FALSE(assigned.IsEnabled());
}

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

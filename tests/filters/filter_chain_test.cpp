#include "filters/filter_chain.h"

#include <gtest/gtest.h>

#include <string>

#include "filters/offset_filter.h"
#include "tests/support/rotation.h"

namespace kinetrel {
namespace {

using Xyz = std::array<float, 3>;

constexpr Xyz kTurn = {0.5F, 0.3F, -0.2F};

// A filter that multiplies positions and turns; overrides only the pure virtual operations.
class Stretch final : public Filter {
 public:
  explicit Stretch(float factor, int* alive = nullptr)
      : Filter(FilterType{1}), factor_(factor), alive_(alive) {
    Count(1);
  }
  Stretch(const Stretch& other) : Filter(other), factor_(other.factor_), alive_(other.alive_) {
    Count(1);
  }
  Stretch& operator=(const Stretch&) = delete;
  ~Stretch() override { Count(-1); }

  std::unique_ptr<Filter> Clone() const override { return std::make_unique<Stretch>(*this); }
  void FilterPose(float p[3], float q[4]) override {
    for (int i = 0; i < 3; ++i) p[i] *= factor_;
    const Quaternion turned = UnitProduct(q, EulerToQuaternion(kTurn.data()).data());
    std::copy_n(turned.begin(), 4, q);
  }

 private:
  void Count(int by) {
    if (alive_ != nullptr) *alive_ += by;
  }
  float factor_;
  int* alive_;
};

std::unique_ptr<OffsetFilter> Shift(float by) {
  auto filter = std::make_unique<OffsetFilter>();
  filter->SetSubtract(false);
  filter->SetPositionOffset(Xyz{by, by, by}.data());
  return filter;
}

float Through(Filter& filter, float x) {
  Xyz p = {x, x, x};
  return filter.SetPosition(p.data())[0];
}

// ---- Filter's own defaults -----------------------------------------------------------------

TEST(Filter, EveryOperationGivesTheSamePoseAndStoresIt) {
  const Xyz pose = {1.0F, -0.4F, 0.2F};
  const test::Matrix expected = test::RotationOf(pose) * test::RotationOf(kTurn);
  Stretch filter(2);

  Quaternion q = EulerToQuaternion(pose.data());
  EXPECT_EQ(filter.SetQuaternion(q.data()), filter.orientation().data());
  EXPECT_LT(Distance(test::RotationOf(q), expected), 1e-6);
  EXPECT_EQ(filter.orientation(), q);

  Xyz angles = pose;
  filter.SetEuler(angles.data());
  EXPECT_LT(Distance(test::RotationOf(angles), expected), 1e-6);

  Xyz p = {1, 2, 3};
  angles = pose;
  filter.SetPositionEuler(p.data(), angles.data());
  EXPECT_EQ(p, (Xyz{2, 4, 6}));
  EXPECT_EQ(filter.position(), p);
  EXPECT_LT(Distance(test::RotationOf(angles), expected), 1e-6);
  EXPECT_LT(Distance(test::RotationOf(filter.orientation()), expected), 1e-6);

  EXPECT_EQ(filter.SetPosition(p.data()), filter.position().data());
  EXPECT_EQ(p, (Xyz{4, 8, 12}));
}

TEST(Filter, NamesAreCutAt63) {
  Stretch filter(1);
  EXPECT_STREQ(filter.GetName(), "");
  filter.SetName(std::string(200, 'n').c_str());
  EXPECT_EQ(filter.GetName(), std::string(63, 'n'));
  filter.SetName(nullptr);
  EXPECT_EQ(filter.GetName(), std::string(63, 'n'));
}

// ---- A chain -------------------------------------------------------------------------------

class Chain : public testing::Test {
 protected:
  Chain() {  // (x + 1) * 10 + 100
    chain_.Append(Shift(1));
    chain_.Append(std::make_unique<Stretch>(10.0F, &alive_));
    chain_.Append(Shift(100));
    chain_.SetStatusLog(&log_);
  }

  int alive_ = 0;
  StatusLog log_;
  FilterChain chain_;
};

TEST_F(Chain, EachFilterSeesTheOneBefore) {
  EXPECT_EQ(Through(chain_, 2), 130);
  chain_.GetFilter(1)->Enable(false);
  EXPECT_EQ(Through(chain_, 2), 103);
  EXPECT_EQ(chain_.GetFilter(1)->position()[0], 3);  // it stored what passed
  chain_.Enable(false);
  EXPECT_EQ(Through(chain_, 2), 2);
}

TEST_F(Chain, AnImpossibleMoveIsReported) {
  struct Row {
    int index;
    bool up;
    const char* text;
  };
  for (const Row& row :
       {Row{0, true, "Unable to move index 0 up.  Cuurrent filter list size: 3."},
        Row{2, false, "Unable to move index 2 down.  Cuurrent filter list size: 3."},
        Row{5, true, "Filter index 5 invalid.  Cuurrent filter list size: 3."},
        Row{3, true, "Filter index 3 invalid.  Cuurrent filter list size: 3."},
        Row{-1, false, "Filter index -1 invalid.  Cuurrent filter list size: 3."},
        Row{2147483647, false,
            "Filter index 2147483647 invalid.  Cuurrent filter list size: 3."}}) {
    EXPECT_FALSE(chain_.MoveFilter(row.index, row.up));
    EXPECT_EQ(log_.Newest().text, row.text);
    EXPECT_EQ(log_.Newest().code, -1);
  }
  EXPECT_EQ(Through(chain_, 2), 130);
  EXPECT_FALSE(FilterChain().MoveFilter(0, true));  // empty, and without a log
}

TEST_F(Chain, FiltersAreFoundAndRemovedByIndex) {
  for (const int none : {-1, 3, 2147483647, -2147483647}) {
    EXPECT_EQ(chain_.GetFilter(none), nullptr);
    EXPECT_FALSE(chain_.RemoveFilter(none));
  }
  Filter* const last = chain_.GetFilter(2);
  EXPECT_TRUE(chain_.RemoveFilter(1));
  EXPECT_EQ(alive_, 0);
  EXPECT_EQ(chain_.GetNumFilters(), 2);
  EXPECT_EQ(chain_.GetFilter(1), last);
  chain_.ClearFilters();
  EXPECT_EQ(chain_.GetNumFilters(), 0);
  EXPECT_EQ(Through(chain_, 2), 2);
}

TEST_F(Chain, CopiesHaveFiltersOfTheirOwn) {
  chain_.GetFilter(0)->Enable(false);
  chain_.Enable(false);
  {
    const std::unique_ptr<Filter> clone = chain_.Clone();
    auto& copy = dynamic_cast<FilterChain&>(*clone);
    EXPECT_EQ(alive_, 2);
    EXPECT_TRUE(copy.RemoveFilter(2));
    EXPECT_EQ(Through(copy, 2), 30);  // and all enabled
    EXPECT_EQ(chain_.GetNumFilters(), 3);

    FilterChain assigned;
    assigned.Append(std::make_unique<Stretch>(5.0F, &alive_));
    assigned = chain_;
    EXPECT_EQ(alive_, 3);  // the one it had is gone
    EXPECT_EQ(assigned.GetNumFilters(), 3);
    EXPECT_FALSE(assigned.IsEnabled());
  }
  EXPECT_EQ(alive_, 1);
  FilterChain& itself = chain_;
  chain_ = itself;
  EXPECT_EQ(chain_.GetNumFilters(), 3);
  EXPECT_EQ(alive_, 1);
}

}  // namespace
}  // namespace kinetrel

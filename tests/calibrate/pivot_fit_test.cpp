// The tip of a tool by pivoting, in numbers.
#include "calibrate/pivot_fit.h"

#include <gtest/gtest.h>

#include "tests/filters/filter_motion.h"

namespace kinetrel::calibrate {
namespace {

using test::Noise;

constexpr Vector3 kTip = {0.121, -0.013, 0.027};
constexpr Vector3 kPivot = {0.4, -0.2, 0.6};

// Tilted to all sides by `tilt` and twisted by `twist`, degrees.
std::vector<SensorPose> Pivoting(double tilt, double twist, int count, unsigned seed) {
  std::mt19937 random(seed);
  Noise noise(3e-4, 0.05, seed);
  std::uniform_real_distribution<double> side(-1.0, 1.0);
  std::vector<SensorPose> poses;
  for (int i = 0; i < count; ++i) {
    const Vector3 angles = {twist * side(random), tilt * side(random), tilt * side(random)};
    const Rotation q = FromAngles({0.5, 0.3, -0.2}) * FromAngles(kRadiansPerDegree * angles);
    PoseSample sample = test::SampleAt(0.0, kPivot - Rotate(q, kTip), q);
    noise.On(sample);
    poses.push_back({sample.position, sample.orientation});
  }
  return poses;
}

TEST(PivotFit, TheTipIsRightWithinThreeStandardErrors) {
  test::Rms inErrors;
  for (unsigned seed = 1; seed <= 60; ++seed) {
    PivotFit fit;
    ASSERT_EQ(FitPivot(Pivoting(30, 45, 400, seed), fit), "");
    for (std::size_t axis = 0; axis < 3; ++axis) {
      const double off = fit.tip[axis] - kTip[axis];
      EXPECT_LT(std::abs(off), 3.0 * fit.tipError[axis]) << "seed " << seed << " axis " << axis;
      EXPECT_LT(fit.tipError[axis], 1e-4);
      inErrors.Add(off / fit.tipError[axis]);
    }
    EXPECT_LT(Length(fit.pivot - kPivot), 2e-4);
    EXPECT_EQ(fit.residuals.size(), 400U);
  }
  EXPECT_NEAR(inErrors.Value(), 1.0, 0.2) << "the errors are as large as they are said to be";
}

TEST(PivotFit, AToolThatTurnedTooLittleIsRefused) {
  struct Row {
    const char* name;
    std::vector<SensorPose> poses;
    const char* reason;  // empty: a tip is found
  };
  for (const Row& row :
       {Row{"AllSides", Pivoting(20, 20, 400, 1), ""},
        Row{"TwistedOnly", Pivoting(0, 90, 400, 1), "turned too little"},
        Row{"AtRest", Pivoting(0, 0, 400, 1), "turned too little"},
        Row{"ALittle", Pivoting(2, 2, 400, 1), "turned too little"},
        Row{"Few", Pivoting(30, 45, 29, 1), "only 29 poses"}, Row{"None", {}, "only 0 poses"}}) {
    SCOPED_TRACE(row.name);
    PivotFit fit;
    const std::string complaint = FitPivot(row.poses, fit);
    EXPECT_EQ(complaint.empty(), *row.reason == '\0') << complaint;
    EXPECT_NE(complaint.find(row.reason), std::string::npos) << complaint;
  }
}

}  // namespace
}  // namespace kinetrel::calibrate

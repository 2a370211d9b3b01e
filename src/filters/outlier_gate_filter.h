// Keeps out single poses that no motion explains: a sensor that leaps across the room for one
// sample.
//
// A pose is an outlier if its position or orientation is farther from the last good one than the
// speed bound allows, or farther from where the last good speed leads than the acceleration bound
// allows. The filter publishes the last good pose in its place, or a pose that is not valid. Poses
// that stay away for longer than patience-s are believed.
#pragma once

#include "filters/tuned_filter.h"

namespace kinetrel {

class OutlierGateFilter final : public TunedFilter {
 public:
  OutlierGateFilter();
  std::unique_ptr<Filter> Clone() const override;

 private:
  const char* Work(PoseSample& sample, const Step& step) override;
  bool IsOutlier(const PoseSample& sample) const;
  void Believe(const PoseSample& sample, bool first);

  PoseSample good_;         // the last one
  Vector3 velocity_{};      // m/s, between the last two good ones
  double sinceGood_ = 0.0;  // s
  bool hasVelocity_ = false;
};

}  // namespace kinetrel

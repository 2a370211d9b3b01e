// Decides what is published while a sensor sends poses that are not valid, or no records: for
// time-s it holds the last valid pose or goes on with its speed, and afterwards the pose is not
// valid.
#pragma once

#include "filters/tuned_filter.h"

namespace kinetrel {

class DropoutFilter final : public TunedFilter {
 public:
  DropoutFilter();
  std::unique_ptr<Filter> Clone() const override;
  bool BridgesGaps() const override { return true; }

 private:
  const char* Work(PoseSample& sample, const Step& step) override;
  void Learn(const PoseSample& sample, double seconds);

  PoseSample valid_;         // the last one
  Vector3 velocity_{};       // m/s
  Vector3 turning_{};        // rad/s, in the sensor's frame
  double sinceValid_ = 0.0;  // s
};

}  // namespace kinetrel

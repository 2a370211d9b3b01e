// Smooths a pose that rests and lets a pose that moves pass: a low-pass filter of first order whose
// cut-off frequency grows with the speed.
//
//   cut-off = min-cutoff-hz + beta x speed
//
// The speed is that of the device's poses, smoothed at derivative-cutoff-hz as a vector, so noise
// adds little to it. Position and orientation have a beta each. lag-ms is what the filter was
// measured to delay the positions while they moved faster than 2 cm/s, of about the last second of
// such motion.
#pragma once

#include "filters/tuned_filter.h"

namespace kinetrel {

class OneEuroFilter final : public TunedFilter {
 public:
  OneEuroFilter();
  std::unique_ptr<Filter> Clone() const override;
  double Lag() const override;

 private:
  const char* Work(PoseSample& sample, const Step& step) override;
  void SmoothPosition(Vector3& position, double seconds, bool first);
  void SmoothOrientation(Rotation& orientation, double seconds, bool first);
  void MeasureLag(const Vector3& device, double seconds);

  Vector3 devicePosition_{};  // of the sample before
  Vector3 velocity_{};        // m/s
  Vector3 position_{};        // smoothed
  bool hasPosition_ = false;
  Rotation deviceOrientation_ = kNoRotation;
  Vector3 turning_{};  // rad/s, in the sensor's frame
  Rotation orientation_ = kNoRotation;
  bool hasOrientation_ = false;
  double behind_ = 0.0;  // sums of the measured lag: distance behind times speed, speed squared
  double moved_ = 0.0;
};

}  // namespace kinetrel

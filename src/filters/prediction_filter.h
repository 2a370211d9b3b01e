// Publishes where the sensor will be: the pose at the time of the sample plus horizon-ms, or at the
// next frame of a display after that.
//
// The motion is taken as steady, in speed and in turning, from a Kalman filter whose noise the
// parameters state: that of the tracker's poses, and the acceleration of the motion. The filter
// never looks further ahead than its samples reach back, nor moves a pose by more than max-reach-m.
// A part of the pose that is not valid ends the prediction of that part at once.
#pragma once

#include "filters/tuned_filter.h"

namespace kinetrel {

class PredictionFilter final : public TunedFilter {
 public:
  PredictionFilter();
  std::unique_ptr<Filter> Clone() const override;

 private:
  // What is known of a place and its rate, the same for all three axes.
  struct Certainty {
    double place = 0.0;  // variances and covariance
    double cross = 0.0;
    double rate = 0.0;
    double placeGain = 0.0;  // of the newest sample
    double rateGain = 0.0;

    void Begin(double noise, double rateSpread);
    void Step(double seconds, double noise, double acceleration);
  };

  const char* Work(PoseSample& sample, const Step& step) override;
  void FollowPosition(const Vector3& position, double seconds, bool first);
  void FollowOrientation(const Rotation& orientation, double seconds, bool first);
  double HorizonOf(const PoseSample& sample) const;  // s

  Vector3 position_{};
  Vector3 velocity_{};  // m/s
  Certainty placed_;
  double positionSpan_ = 0.0;  // s of samples that the state rests on
  bool hasPosition_ = false;
  Rotation orientation_ = kNoRotation;
  Vector3 turning_{};  // rad/s, in the sensor's frame
  Certainty turned_;
  double orientationSpan_ = 0.0;
  bool hasOrientation_ = false;
};

}  // namespace kinetrel

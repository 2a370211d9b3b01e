#include "filters/one_euro_filter.h"

#include <limits>

namespace kinetrel {
namespace {

enum Row : std::size_t { MinCutoff, Beta, TurnBeta, DerivativeCutoff, LagMs };

constexpr FilterParameter kTable[] = {
    {"min-cutoff-hz", 1, 1e-3, 1e3, {0.4}},
    {"beta-hz-per-mps", 1, 0.0, 1e5, {200.0}},
    {"turn-beta-hz-per-dps", 1, 0.0, 1e3, {0.8}},
    {"derivative-cutoff-hz", 1, 1e-2, 1e3, {2.0}},
    {"lag-ms", 1, 0.0, 1e6, {}, nullptr, FilterParameter::Access::ReadOnly},
};

constexpr double kMoving = 0.02;    // m/s
constexpr double kLagMemory = 1.0;  // s

// The share of a new value in a low-pass filter of first order.
double ShareOf(double cutoffHz, double seconds) {
  const double turn = 2.0 * kPi * cutoffHz * seconds;
  return turn / (1.0 + turn);
}

}  // namespace

OneEuroFilter::OneEuroFilter() : TunedFilter(FilterType::OneEuro, "one-euro", kTable) {}

std::unique_ptr<Filter> OneEuroFilter::Clone() const {
  return std::make_unique<OneEuroFilter>(*this);
}

double OneEuroFilter::Lag() const { return 1e-3 * Value(LagMs); }

const char* OneEuroFilter::Work(PoseSample& sample, const Step& step) {
  if (sample.hasPosition) {
    SmoothPosition(sample.position, step.seconds, step.first || !hasPosition_);
  }
  if (sample.hasOrientation) {
    SmoothOrientation(sample.orientation, step.seconds, step.first || !hasOrientation_);
  }
  hasPosition_ = sample.hasPosition;
  hasOrientation_ = sample.hasOrientation;
  return nullptr;
}

void OneEuroFilter::SmoothPosition(Vector3& position, double seconds, bool first) {
  if (first) {
    devicePosition_ = position_ = position;
    velocity_ = {};
    return;
  }
  const Vector3 device = position;
  if (seconds > 0.0) {
    const double share = ShareOf(Value(DerivativeCutoff), seconds);
    const Vector3 velocity = (1.0 / seconds) * (device - devicePosition_);
    velocity_ = velocity_ + share * (velocity - velocity_);
    const double cutoff = Value(MinCutoff) + Value(Beta) * Length(velocity_);
    position_ = position_ + ShareOf(cutoff, seconds) * (device - position_);
    devicePosition_ = device;
    MeasureLag(device, seconds);
  }
  position = position_;
}

void OneEuroFilter::SmoothOrientation(Rotation& orientation, double seconds, bool first) {
  if (first) {
    deviceOrientation_ = orientation_ = orientation;
    turning_ = {};
    return;
  }
  if (seconds > 0.0) {
    const double share = ShareOf(Value(DerivativeCutoff), seconds);
    const Vector3 turning = (1.0 / seconds) * ToTurn(Inverse(deviceOrientation_) * orientation);
    turning_ = turning_ + share * (turning - turning_);
    const double speed = Length(turning_) * kDegreesPerRadian;
    const double part = ShareOf(Value(MinCutoff) + Value(TurnBeta) * speed, seconds);
    deviceOrientation_ = orientation;
    orientation_ = Between(orientation_, orientation, part);
  }
  orientation = orientation_;
}

// The lag is the time by which the positions shifted along the velocity fit best.
void OneEuroFilter::MeasureLag(const Vector3& device, double seconds) {
  const double speed = Length(velocity_);
  if (speed < kMoving) return;
  const double kept = std::max(0.0, 1.0 - seconds / kLagMemory);
  behind_ = kept * behind_ + seconds * Dot(device - position_, velocity_);
  moved_ = kept * moved_ + seconds * speed * speed;
  SetMeasured(LagMs, std::max(0.0, 1e3 * behind_ / moved_));
}

}  // namespace kinetrel

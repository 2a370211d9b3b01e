#include "filters/prediction_filter.h"

namespace kinetrel {
namespace {

enum Row : std::size_t {
  Horizon,
  Noise,
  Acceleration,
  TurnNoise,
  TurnAcceleration,
  Reach,
  DisplayRate,
  DisplayPhase
};

constexpr FilterParameter kTable[] = {
    {"horizon-ms", 1, 0.0, 100.0, {30.0}},
    {"noise-m", 1, 1e-7, 1.0, {0.0005}},
    {"acceleration-mps2", 1, 1e-3, 1e4, {10.0}},
    {"turn-noise-deg", 1, 1e-5, 90.0, {0.1}},
    {"turn-acceleration-dps2", 1, 1e-1, 1e6, {2000.0}},
    {"max-reach-m", 1, 0.0, 100.0, {0.2}},
    {"display-hz", 1, 0.0, 1000.0, {0.0}},  // 0: none
    {"display-phase-ms", 1, 0.0, 1000.0, {0.0}},
};

constexpr double kLongestHorizon = 0.1;  // s
constexpr double kSpeedSpread = 3.0;     // m/s, of a sensor that is not known yet
constexpr double kTurnSpread = 10.0;     // rad/s

double Square(double value) { return value * value; }

}  // namespace

PredictionFilter::PredictionFilter() : TunedFilter(FilterType::Prediction, "predict", kTable) {}

std::unique_ptr<Filter> PredictionFilter::Clone() const {
  return std::make_unique<PredictionFilter>(*this);
}

// ---- The Kalman filter -----------------------------------------------------------------------

void PredictionFilter::Certainty::Begin(double noise, double rateSpread) {
  *this = {Square(noise), 0.0, Square(rateSpread)};
}

// The acceleration is white noise that is constant during a step.
void PredictionFilter::Certainty::Step(double seconds, double noise, double acceleration) {
  const double push = Square(acceleration);
  place += seconds * (2.0 * cross + seconds * rate) + push * Square(Square(seconds)) / 4.0;
  cross += seconds * rate + push * seconds * Square(seconds) / 2.0;
  rate += push * Square(seconds);
  const double total = place + Square(noise);
  placeGain = place / total;
  rateGain = cross / total;
  rate -= rateGain * cross;
  cross *= 1.0 - placeGain;
  place *= 1.0 - placeGain;
}

void PredictionFilter::FollowPosition(const Vector3& position, double seconds, bool first) {
  if (first) {
    position_ = position;
    velocity_ = {};
    positionSpan_ = 0.0;
    placed_.Begin(Value(Noise), kSpeedSpread);
    return;
  }
  if (seconds <= 0.0) return;
  placed_.Step(seconds, Value(Noise), Value(Acceleration));
  position_ = position_ + seconds * velocity_;
  const Vector3 off = position - position_;
  position_ = position_ + placed_.placeGain * off;
  velocity_ = velocity_ + placed_.rateGain * off;
  positionSpan_ += seconds;
}

void PredictionFilter::FollowOrientation(const Rotation& orientation, double seconds, bool first) {
  if (first) {
    orientation_ = orientation;
    turning_ = {};
    orientationSpan_ = 0.0;
    turned_.Begin(kRadiansPerDegree * Value(TurnNoise), kTurnSpread);
    return;
  }
  if (seconds <= 0.0) return;
  turned_.Step(seconds, kRadiansPerDegree * Value(TurnNoise),
               kRadiansPerDegree * Value(TurnAcceleration));
  orientation_ = orientation_ * FromTurn(seconds * turning_);
  const Vector3 off = ToTurn(AtUnitLength(Inverse(orientation_) * orientation));
  orientation_ = AtUnitLength(orientation_ * FromTurn(turned_.placeGain * off));
  turning_ = turning_ + turned_.rateGain * off;
  orientationSpan_ += seconds;
}

// ---- Samples -------------------------------------------------------------------------------

double PredictionFilter::HorizonOf(const PoseSample& sample) const {
  const double horizon = Value(Horizon) * 1e-3;
  if (Value(DisplayRate) <= 0.0) return horizon;
  const double period = 1.0 / Value(DisplayRate);
  const double aim =
      static_cast<double>(sample.timeNs) * 1e-9 + horizon - Value(DisplayPhase) * 1e-3;
  const double wait = std::ceil(aim / period) * period - aim;
  return std::min(horizon + wait, kLongestHorizon);
}

const char* PredictionFilter::Work(PoseSample& sample, const Step& step) {
  const double horizon = HorizonOf(sample);
  if (sample.hasPosition) {
    FollowPosition(sample.position, step.seconds, step.first || !hasPosition_);
    Vector3 way = std::min(horizon, positionSpan_) * velocity_;
    const double reach = Length(way);
    if (reach > Value(Reach)) way = (Value(Reach) / reach) * way;
    sample.position = position_ + way;
  }
  if (sample.hasOrientation) {
    FollowOrientation(sample.orientation, step.seconds, step.first || !hasOrientation_);
    const Vector3 turn = std::min(horizon, orientationSpan_) * turning_;
    sample.orientation = AtUnitLength(orientation_ * FromTurn(turn));
  }
  hasPosition_ = sample.hasPosition;
  hasOrientation_ = sample.hasOrientation;
  return nullptr;
}

}  // namespace kinetrel

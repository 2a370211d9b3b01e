#include "filters/dropout_filter.h"

namespace kinetrel {
namespace {

enum Row : std::size_t { Instead, Time };
enum Instead { Hold, Extrapolate, Invalid };

constexpr FilterParameter kTable[] = {
    {"instead", 1, Hold, Invalid, {}, "hold|extrapolate|invalid"},
    {"time-s", 1, 0.0, 1e6, {0.5}},
};

constexpr double kSpeedMemory = 0.05;  // s

}  // namespace

DropoutFilter::DropoutFilter() : TunedFilter(FilterType::Dropout, "dropout", kTable) {}

std::unique_ptr<Filter> DropoutFilter::Clone() const {
  return std::make_unique<DropoutFilter>(*this);
}

const char* DropoutFilter::Work(PoseSample& sample, const Step& step) {
  if (step.first) {
    valid_ = {};
    sinceValid_ = 0.0;
    velocity_ = turning_ = {};
  }
  sinceValid_ += step.seconds;
  const bool whole = (sample.hasPosition || !valid_.hasPosition) &&
                     (sample.hasOrientation || !valid_.hasOrientation);
  if (whole) {
    if (!step.first && sinceValid_ > 0.0) Learn(sample, sinceValid_);
    valid_ = sample;
    sinceValid_ = 0.0;
    return nullptr;
  }
  if (sinceValid_ > Value(Time) || Choice(Instead) == Invalid) {
    sample.hasPosition = sample.hasOrientation = false;
    return nullptr;
  }
  const double seconds = Choice(Instead) == Extrapolate ? sinceValid_ : 0.0;
  sample.hasPosition = valid_.hasPosition;
  sample.hasOrientation = valid_.hasOrientation;
  sample.position = valid_.position + seconds * velocity_;
  sample.orientation = AtUnitLength(valid_.orientation * FromTurn(seconds * turning_));
  return nullptr;
}

void DropoutFilter::Learn(const PoseSample& sample, double seconds) {
  const double share = seconds / (seconds + kSpeedMemory);
  if (sample.hasPosition && valid_.hasPosition) {
    const Vector3 velocity = (1.0 / seconds) * (sample.position - valid_.position);
    velocity_ = velocity_ + share * (velocity - velocity_);
  }
  if (sample.hasOrientation && valid_.hasOrientation) {
    const Vector3 turning =
        (1.0 / seconds) * ToTurn(Inverse(valid_.orientation) * sample.orientation);
    turning_ = turning_ + share * (turning - turning_);
  }
}

}  // namespace kinetrel

#include "filters/outlier_gate_filter.h"

namespace kinetrel {
namespace {

enum Row : std::size_t { Speed, Acceleration, TurnSpeed, Patience, Instead, Outliers };
enum Instead { Hold, Invalid };

constexpr FilterParameter kTable[] = {
    {"max-speed-mps", 1, 1e-3, 1e6, {10.0}},
    {"max-acceleration-mps2", 1, 1e-3, 1e9, {500.0}},
    {"max-turn-speed-dps", 1, 1e-1, 1e9, {3000.0}},
    {"patience-s", 1, 0.0, 60.0, {0.1}},
    {"instead", 1, Hold, Invalid, {}, "hold|invalid"},
    {"outliers", 1, 0.0, 1e18, {}, nullptr, FilterParameter::Access::ReadOnly},
};

// Two samples of one moment may differ by this much.
constexpr double kRest = 1e-3;  // m, and rad

}  // namespace

OutlierGateFilter::OutlierGateFilter() : TunedFilter(FilterType::OutlierGate, "gate", kTable) {}

std::unique_ptr<Filter> OutlierGateFilter::Clone() const {
  return std::make_unique<OutlierGateFilter>(*this);
}

const char* OutlierGateFilter::Work(PoseSample& sample, const Step& step) {
  sinceGood_ += step.seconds;
  const bool comparable = !step.first && (good_.hasPosition || good_.hasOrientation);
  if (!comparable || !IsOutlier(sample)) {
    Believe(sample, !comparable);
    return nullptr;
  }
  SetMeasured(Outliers, Value(Outliers) + 1.0);
  if (sinceGood_ > Value(Patience)) {
    Believe(sample, true);
  } else if (Choice(Instead) == Hold) {
    sample.position = good_.position;
    sample.orientation = good_.orientation;
    sample.hasPosition = good_.hasPosition;
    sample.hasOrientation = good_.hasOrientation;
  } else {
    sample.hasPosition = sample.hasOrientation = false;
  }
  return nullptr;
}

bool OutlierGateFilter::IsOutlier(const PoseSample& sample) const {
  const double seconds = sinceGood_;
  if (sample.hasPosition && good_.hasPosition) {
    const Vector3 way = sample.position - good_.position;
    if (Length(way) > kRest + Value(Speed) * seconds) return true;
    const double astray = Length(way - seconds * velocity_);
    if (hasVelocity_ && astray > kRest + Value(Acceleration) * seconds * seconds) return true;
  }
  if (!sample.hasOrientation || !good_.hasOrientation) return false;
  const double turn = Length(ToTurn(Inverse(good_.orientation) * sample.orientation));
  return turn > kRest + kRadiansPerDegree * Value(TurnSpeed) * seconds;
}

// An invalid sample leaves the last good one in force.
void OutlierGateFilter::Believe(const PoseSample& sample, bool first) {
  if (!first && !sample.hasPosition && !sample.hasOrientation) return;
  hasVelocity_ = !first && sample.hasPosition && good_.hasPosition && sinceGood_ > 0.0;
  if (hasVelocity_) velocity_ = (1.0 / sinceGood_) * (sample.position - good_.position);
  good_ = sample;
  sinceGood_ = 0.0;
}

}  // namespace kinetrel

#include "devices/motion_gate.h"

#include <algorithm>
#include <cmath>

namespace kinetrel {
namespace {

constexpr int kLearning = 6;   // samples
constexpr double kMargin = 4;  // times the usual distance
constexpr double kMemory = 8;  // samples

// Half of the hardest ordinary acceleration, and the finest step.
constexpr double kLengthPerSquareSecond = 200;  // cm/s2
constexpr double kLeastLength = 0.02;           // cm
constexpr double kAnglePerSquareSecond = 200 * kRadiansPerDegree;
constexpr double kLeastAngle = 0.02 * kRadiansPerDegree;

constexpr double kFullLength = 300;  // cm
constexpr double kQuantized = 3;     // steps by which rounding alone moves a pose off its path

// From `value` to the path that leads from `last` on as it came there from `before`; at most `most`
// times as far.
template <std::size_t Size>
double DistanceFromPath(const std::array<float, Size>& before, const std::array<float, Size>& last,
                        const std::array<float, Size>& value, double most) {
  double along = 0;
  double square = 0;
  for (std::size_t i = 0; i < Size; ++i) {
    const double step = double{last[i]} - before[i];
    along += step * (double{value[i]} - last[i]);
    square += step * step;
  }
  const double part = square > 0 ? std::clamp(along / square, 0.0, most) : 0.0;
  double distance = 0;
  for (std::size_t i = 0; i < Size; ++i) {
    const double step = double{last[i]} - before[i];
    const double off = double{value[i]} - last[i] - part * step;
    distance += off * off;
  }
  return std::sqrt(distance);
}

// A quaternion and its negative are one rotation: turns `q` to the side of `other`.
void TurnToward(const Quaternion& other, Quaternion& q) {
  float dot = 0;
  for (std::size_t i = 0; i < q.size(); ++i) dot += q[i] * other[i];
  if (dot >= 0) return;
  for (float& part : q) part = -part;
}

}  // namespace

MotionGate::Distance MotionGate::FromPath(const Sample& before, const Sample& last,
                                          const Sample& sample, double most) {
  return {DistanceFromPath(before.position, last.position, sample.position, most),
          2 * DistanceFromPath(before.rotation, last.rotation, sample.rotation, most)};
}

MotionGate::Distance MotionGate::Bound(double seconds, const Source& source) const {
  const double square = seconds * seconds;
  const double rounding = kQuantized * source.resolution;
  return {kLeastLength + kLengthPerSquareSecond * square + rounding * kFullLength +
              kMargin * usual_.length,
          kLeastAngle + kAnglePerSquareSecond * square + rounding * kPi + kMargin * usual_.angle};
}

bool MotionGate::Accept(Sample sample, const Source& source) {
  if (taken_ == 0) {
    suspected_ = false;
    usual_ = {};
    taken_ = 1;
    before_ = last_ = sample;
    return true;
  }
  TurnToward(last_.rotation, sample.rotation);
  const double seconds = std::max(sample.time - last_.time, source.period);
  const double most = 1 + seconds / source.period;  // records may be late or lost
  const Distance bound = Bound(seconds, source);
  const Distance distance = FromPath(before_, last_, sample, most);
  if (taken_ < kLearning || distance.Within(bound)) {
    Take(last_, sample, distance, source);
    return true;
  }
  if (suspected_ && FromPath(last_, suspect_, sample, most + 1).Within(bound)) {
    Take(suspect_, sample, bound, source);
    return true;
  }
  suspected_ = true;
  suspect_ = sample;
  return false;
}

void MotionGate::Take(const Sample& before, const Sample& sample, const Distance& distance,
                      const Source& source) {
  // One sample, as the first after a gap, does not make everything plausible.
  const Distance most = Bound(source.period, source);
  usual_.length += (std::min(distance.length, 2 * most.length) - usual_.length) / kMemory;
  usual_.angle += (std::min(distance.angle, 2 * most.angle) - usual_.angle) / kMemory;
  taken_ = std::min(taken_ + 1, kLearning);
  suspected_ = false;
  before_ = before;
  last_ = sample;
}

}  // namespace kinetrel

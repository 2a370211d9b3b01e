#include "devices/motion_gate.h"

#include <algorithm>
#include <cmath>

namespace kinetrel {
namespace {

constexpr int kLearning = 6;      // samples
constexpr double kMargin = 4;     // times the usual distance
constexpr int kMemory = 8;        // samples
constexpr int kEven = 2;          // samples at even times, which a bent path needs besides the next
constexpr int kMostRejected = 5;  // in a row; then the sensor is really elsewhere
constexpr double kMostSlack = 4;  // steps
constexpr double kPause = 0.5;    // s, after which the sensor may be anywhere

// Half of the hardest ordinary acceleration, and the finest step.
constexpr double kLengthPerSquareSecond = 200;  // cm/s2
constexpr double kLeastLength = 0.02;           // cm
constexpr double kAnglePerSquareSecond = 200 * kRadiansPerDegree;
constexpr double kLeastAngle = 0.02 * kRadiansPerDegree;

constexpr double kQuantized = 3;  // steps by which rounding alone moves a pose off its path

template <std::size_t Size>
using Point = std::array<float, Size>;

// The path through `last`, as it came there: one step on for each sample. `bend` is 0 for a
// straight one.
template <std::size_t Size>
class Path {
 public:
  Path(const Point<Size>& older, const Point<Size>& before, const Point<Size>& last, bool bent) {
    for (std::size_t i = 0; i < Size; ++i) {
      last_[i] = double{last[i]};
      step_[i] = double{last[i]} - double{before[i]};
      if (bent) bend_[i] = step_[i] - (double{before[i]} - double{older[i]});
    }
  }

  // The steps, from `least` to `most`, after which the path comes nearest to `value`.
  double NearestStep(const Point<Size>& value, double least, double most) const {
    double step = std::clamp(1.0, least, most);
    for (int round = 0; round < kRounds; ++round) {
      double along = 0;
      double square = 0;
      for (std::size_t i = 0; i < Size; ++i) {
        const double speed = step_[i] + (step + 0.5) * bend_[i];
        along += speed * (double{value[i]} - At(i, step));
        square += speed * speed;
      }
      if (square <= 0) break;
      step = std::clamp(step + along / square, least, most);
    }
    return step;
  }

  double DistanceAt(const Point<Size>& value, double step) const {
    double distance = 0;
    for (std::size_t i = 0; i < Size; ++i) {
      const double off = double{value[i]} - At(i, step);
      distance += off * off;
    }
    return std::sqrt(distance);
  }

 private:
  static constexpr int kRounds = 3;

  double At(std::size_t i, double step) const {
    return last_[i] + step * step_[i] + step * (step + 1) / 2 * bend_[i];
  }

  std::array<double, Size> last_{};
  std::array<double, Size> step_{};
  std::array<double, Size> bend_{};
};

// A quaternion and its negative are one rotation: turns `q` to the side of `other`.
void TurnToward(const Quaternion& other, Quaternion& q) {
  float dot = 0;
  for (std::size_t i = 0; i < q.size(); ++i) dot += q[i] * other[i];
  if (dot >= 0) return;
  for (float& part : q) part = -part;
}

}  // namespace

MotionGate::Sample MotionGate::SampleOf(const Pose& pose, double unitInCm, double time) {
  Sample sample;
  for (std::size_t i = 0; i < 3; ++i) {
    sample.position[i] = static_cast<float>(double{pose[i]} * unitInCm);
  }
  sample.rotation = EulerToQuaternion(&pose[3]);
  sample.time = time;
  return sample;
}

// Position and rotation are apart: one may rest while the other moves.
MotionGate::Distances MotionGate::FromPath(const Sample& before, const Sample& last,
                                           const Sample& sample, const Steps& steps) const {
  const auto measure = [&](const auto& a, const auto& b, const auto& c, const auto& value,
                           bool bent) {
    const Path path(a, b, c, bent);
    return path.DistanceAt(value, path.NearestStep(value, steps.least, steps.most));
  };
  const auto each = [&](bool bent) {
    return Distance{
        measure(older_.position, before.position, last.position, sample.position, bent),
        2 * measure(older_.rotation, before.rotation, last.rotation, sample.rotation, bent)};
  };
  return {each(false), each(true)};
}

// How many of the last steps lie between the last sample and this one. Records of a stream come one
// period apart whenever they are read; an answer is as old as its request.
MotionGate::Steps MotionGate::StepsTo(const Sample& sample) const {
  constexpr double kMost = 8;
  const double byCount = (1.0 + rejected_) / span_;
  const double apart = last_.time - before_.time;
  const double byTime = apart > 0 ? std::min((sample.time - last_.time) / apart, kMost) : byCount;
  return {std::max(std::min(byCount, byTime) - slack_, 0.0), std::max(byCount, byTime) + slack_};
}

// Rejected records before this one leave the sensor more time to leave its path.
MotionGate::Distance MotionGate::Bound(double seconds, const Distance& usual,
                                       const Source& source) const {
  const double square = seconds * seconds;
  const double spread = (1.0 + rejected_) * (2.0 + rejected_) / 2;
  return {kLeastLength + kLengthPerSquareSecond * square + kQuantized * source.lengthStep +
              kMargin * spread * usual.length,
          kLeastAngle + kAnglePerSquareSecond * square + kQuantized * source.angleStep +
              kMargin * spread * usual.angle};
}

// A bent path needs three samples at even times. Where it fits better, it is the stricter judge.
bool MotionGate::IsNear(const Distances& distances, double seconds, const Source& source) const {
  const Distance straight = Bound(seconds, usual_.straight, source);
  const Distance bent = Bound(seconds, usual_.bent, source);
  const bool even = even_ >= kEven && learnedBent_ > 0;
  const bool length = even && usual_.bent.length < usual_.straight.length
                          ? distances.bent.length <= bent.length
                          : distances.straight.length <= straight.length;
  const bool angle = even && usual_.bent.angle < usual_.straight.angle
                         ? distances.bent.angle <= bent.angle
                         : distances.straight.angle <= straight.angle;
  return length && angle;
}

// Good samples were rejected: on a busy machine times are less certain than they were.
void MotionGate::Slacken() { slack_ = std::min(2 * slack_, kMostSlack); }

void MotionGate::Begin(const Sample& sample) {
  const double slack = slack_;
  *this = {};
  slack_ = slack;
  taken_ = 1;
  older_ = before_ = last_ = sample;
}

bool MotionGate::Accept(Sample sample, const Source& source) {
  if (rejected_ >= kMostRejected) Slacken();
  if (taken_ == 0 || rejected_ >= kMostRejected || sample.time - last_.time > kPause) {
    Begin(sample);
    return true;
  }
  TurnToward(last_.rotation, sample.rotation);
  const double seconds = std::max(sample.time - last_.time, source.period);
  const Distances distances = FromPath(before_, last_, sample, StepsTo(sample));
  if (taken_ < kLearning || IsNear(distances, seconds, source)) {
    Take(last_, sample, distances, source);
    return true;
  }
  if (rejected_ > 0) {
    // The sensor may have changed its path in between, so the time of the jump is not known.
    const Distances onward = FromPath(last_, suspect_, sample, {0, 2 + 1.0 * rejected_});
    if (onward.straight.Within(Bound(seconds, usual_.straight, source))) {
      Slacken();
      Take(suspect_, sample, {onward.straight, usual_.bent}, source);
      even_ = 0;
      return true;
    }
  }
  ++rejected_;
  suspect_ = sample;
  return false;
}

void MotionGate::Take(const Sample& before, const Sample& sample, const Distances& distances,
                      const Source& source) {
  // One sample, as the first after a gap, does not make everything plausible.
  const auto learn = [&](Distance& usual, const Distance& distance, int& learned) {
    learned = std::min(learned + 1, kMemory);
    const Distance most = Bound(source.period, usual, source);
    usual.length += (std::min(distance.length, 2 * most.length) - usual.length) / learned;
    usual.angle += (std::min(distance.angle, 2 * most.angle) - usual.angle) / learned;
  };
  const bool even = rejected_ == 0 && span_ == 1;
  if (rejected_ == 0) learn(usual_.straight, distances.straight, learnedStraight_);
  if (even && even_ >= kEven) learn(usual_.bent, distances.bent, learnedBent_);
  even_ = even ? std::min(even_ + 1, kLearning) : 0;
  taken_ = std::min(taken_ + 1, kLearning);
  slack_ = std::max(kLeastSlack, slack_ * 0.98);
  span_ = 1 + rejected_;
  rejected_ = 0;
  older_ = before_;
  before_ = before;
  last_ = sample;
}

}  // namespace kinetrel

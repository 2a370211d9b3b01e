#include "devices/motion_gate.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace kinetrel {
namespace {

constexpr int kLearning = 6;          // samples
constexpr int kLine = 2;              // samples that make a line
constexpr int kBend = 3;              // that make a parabola
constexpr double kMargin = 3.5;       // times the usual distance
constexpr int kMemory = 8;            // samples
constexpr double kFewestSteps = 0.5;  // between two samples
constexpr int kMostRejected = 5;      // in a row; then the sensor is really elsewhere
constexpr double kMostSlack = 4;      // steps
constexpr double kPause = 0.5;        // s, after which the sensor may be anywhere

// Half of the hardest ordinary acceleration, and the finest step.
constexpr double kLengthPerSquareSecond = 200;  // cm/s2
constexpr double kLeastLength = 0.02;           // cm
constexpr double kAnglePerSquareSecond = 200 * kRadiansPerDegree;
constexpr double kLeastAngle = 0.02 * kRadiansPerDegree;

constexpr double kNoisy = 6;           // times the usual distance, which noise does not exceed
constexpr int kRemembersDamage = 120;  // samples

constexpr double kQuantized = 3;  // steps by which rounding alone moves a pose off its path

// Three numbers of a position in cm, and four of a rotation in the same measure: a turn of one
// degree is as long as one cm.
using Point = std::array<double, 7>;
constexpr std::size_t kRotation = 3;  // where it begins
constexpr double kDegreesPerPart = 2 * kDegreesPerRadian;

Point PointOf(const MotionGate::Sample& sample) {
  Point point{};
  for (std::size_t i = 0; i < point.size(); ++i) {
    point[i] = i < kRotation ? double{sample.position[i]}
                             : kDegreesPerPart * double{sample.rotation[i - kRotation]};
  }
  return point;
}

double LengthOf(const Point& point, std::size_t begin, std::size_t end) {
  double square = 0;
  for (std::size_t i = begin; i < end; ++i) square += point[i] * point[i];
  return std::sqrt(square);
}

// Runs through `last` at step 0 and through `before` some steps earlier, straight or bent.
class Path {
 public:
  Path(const MotionGate::Sample& before, const MotionGate::Sample& last, double steps)
      : last_(PointOf(last)), steps_(steps) {
    const Point from = PointOf(before);
    for (std::size_t i = 0; i < last_.size(); ++i) speed_[i] = (last_[i] - from[i]) / steps;
  }

  // So that it also runs through the point where `earlier` begins.
  void BendFrom(const Path& earlier) {
    for (std::size_t i = 0; i < bend_.size(); ++i) {
      bend_[i] = (speed_[i] - earlier.speed_[i]) / (earlier.steps_ + steps_);
    }
  }

  // So that step 0 is there.
  void MoveTo(const MotionGate::Sample& place) { last_ = PointOf(place); }

  // The step, from `least` to `most`, after which the path comes nearest to `point`.
  double NearestStep(const Point& point, double first, double least, double most) const {
    constexpr int kRounds = 3;
    double step = std::clamp(first, least, most);
    for (int round = 0; round < kRounds; ++round) {
      const Point off = OffAt(step, point);
      double along = 0;
      double square = 0;
      for (std::size_t i = 0; i < off.size(); ++i) {
        const double speed = speed_[i] + (2 * step + steps_) * bend_[i];
        along += speed * off[i];
        square += speed * speed;
      }
      if (square <= 0) break;
      step = std::clamp(step + along / square, least, most);
    }
    return step;
  }

  // How far the coordinates from `begin` to `end` are from the straight path, from step `least` to
  // `most`.
  double OffStraight(const Point& point, std::size_t begin, std::size_t end, double least,
                     double most) const {
    double along = 0;
    double square = 0;
    for (std::size_t i = begin; i < end; ++i) {
      along += speed_[i] * (point[i] - last_[i]);
      square += speed_[i] * speed_[i];
    }
    const double step = square > 0 ? std::clamp(along / square, least, most) : 0;
    return LengthOf(OffAt(step, point), begin, end);
  }

  // From the path to the point.
  Point OffAt(double step, const Point& point) const {
    Point off{};
    for (std::size_t i = 0; i < off.size(); ++i) {
      off[i] = point[i] - (last_[i] + step * speed_[i] + step * (step + steps_) * bend_[i]);
    }
    return off;
  }

 private:
  Point last_;
  Point speed_{};  // a step
  Point bend_{};
  double steps_;
};

// A quaternion and its negative are one rotation: turns `q` to the side of `other`.
void TurnToward(const Quaternion& other, Quaternion& q) {
  float dot = 0;
  for (std::size_t i = 0; i < q.size(); ++i) dot += q[i] * other[i];
  if (dot >= 0) return;
  for (float& part : q) part = -part;
}

// A line through two samples that are `steps` apart leaves the real path with this factor times the
// acceleration, a parabola through three with the other times its change.
double SpreadOfLine(double step, double steps) { return step * (step + steps) / 2; }

double SpreadOfBend(double step, double steps, double earlierSteps) {
  return step * (step + steps) * (step + steps + earlierSteps) / 6;
}

struct Nearest {
  std::array<double, 2> off;
  double step;
};

Nearest NearestOn(const Path& path, const MotionGate::Sample& sample, double first, double least,
                  double most) {
  const Point point = PointOf(sample);
  const double step = path.NearestStep(point, first, least, most);
  const Point off = path.OffAt(step, point);
  return {{LengthOf(off, 0, kRotation), LengthOf(off, kRotation, off.size()) * kRadiansPerDegree},
          step};
}

bool IsWithin(const Path& path, const MotionGate::Sample& sample, double least, double most,
              const std::array<double, 2>& bound) {
  const Point point = PointOf(sample);
  return path.OffStraight(point, 0, kRotation, least, most) <= bound[0] &&
         path.OffStraight(point, kRotation, point.size(), least, most) * kRadiansPerDegree <=
             bound[1];
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

// ---- Paths -----------------------------------------------------------------------------------

MotionGate::Fit MotionGate::FitStraight(const Sample& sample, const Steps& steps) const {
  const Path path(before_, last_, stepsToLast_);
  const Nearest nearest = NearestOn(path, sample, steps.byCount, steps.least, steps.most);
  return {nearest.off, nearest.step, SpreadOfLine(std::max(nearest.step, 1.0), stepsToLast_)};
}

MotionGate::Fit MotionGate::FitBent(const Sample& sample, const Steps& steps) const {
  Path path(before_, last_, stepsToLast_);
  path.BendFrom(Path(older_, before_, stepsToBefore_));
  const Nearest nearest = NearestOn(path, sample, steps.byCount, steps.least, steps.most);
  return {nearest.off, nearest.step,
          SpreadOfBend(std::max(nearest.step, 1.0), stepsToLast_, stepsToBefore_)};
}

// Records of a stream come one period apart whenever they are read; an answer is as old as its
// request.
MotionGate::Steps MotionGate::StepsTo(const Sample& sample) const {
  const double byCount = 1.0 + rejected_;
  const double byTime = (sample.time - last_.time) / period_;
  return {byCount, byTime, std::max(std::min(byCount, byTime) - slack_, 0.0),
          std::max(byCount, byTime) + slack_};
}

// Between the count and the time, the path decides: a late sample was read late, or a record before
// it was lost and it lies further on. A stream's samples that were read together have no time.
double MotionGate::StepsTaken(const Steps& steps, const Fit& straight) const {
  const auto [least, most] = std::minmax(steps.byCount, std::max(steps.byTime, kFewestSteps));
  return taken_ < kLine ? 1 : std::clamp(straight.step, least, most);
}

// ---- Bounds ----------------------------------------------------------------------------------

MotionGate::Distance MotionGate::Tolerance(double seconds, const Source& source) {
  const double square = seconds * seconds;
  return {kLeastLength + kLengthPerSquareSecond * square + kQuantized * source.lengthStep,
          kLeastAngle + kAnglePerSquareSecond * square + kQuantized * source.angleStep};
}

// The path that usually fits better is the judge.
bool MotionGate::IsNear(const Fit& straight, const Fit& bent, const Distance& tolerance) const {
  for (std::size_t i = 0; i < tolerance.size(); ++i) {
    const double onLine = straight.spread * straight_.off[i];
    const double onBend = bent.spread * bent_.off[i];
    const bool bends = onPath_ >= kBend && bent_.learned > 0 && onBend < onLine;
    const double off = bends ? bent.off[i] : straight.off[i];
    if (off > tolerance[i] + kMargin * (bends ? onBend : onLine)) return false;
  }
  return true;
}

// `seconds` from the last sample, which came `before` seconds after the one before it; `spread` as
// that of a straight path.
MotionGate::Distance MotionGate::Reach(double seconds, double before, double spread,
                                       const Source& source) const {
  const double square = seconds * (seconds + before) / 2;
  return {kLeastLength + source.hardestLength * square + kQuantized * source.lengthStep +
              kNoisy * spread * straight_.off[0],
          kLeastAngle + source.hardestAngle * square + kQuantized * source.angleStep +
              kNoisy * spread * straight_.off[1]};
}

// A sensor may stop at once, and position and rotation each for itself.
bool MotionGate::IsPossible(const Sample& sample, const Steps& steps, const Source& source) const {
  const double most = std::max(steps.byCount, steps.byTime);
  const double seconds = std::max(sample.time - last_.time, source.period * steps.byCount);
  const double before = std::max(last_.time - before_.time, source.period);
  const Distance reach = Reach(seconds, before, SpreadOfLine(most, stepsToLast_), source);
  return IsWithin(Path(before_, last_, stepsToLast_), sample, 0, 2 * most + slack_, reach);
}

bool MotionGate::IsPlausible(const Sample& sample, const Steps& steps, const Fit& straight,
                             const Fit& bent, const Source& source) const {
  if (taken_ < kLearning) return true;
  if (!IsPossible(sample, steps, source)) return false;
  const double seconds = std::max(sample.time - last_.time, source.period);
  return damaged_ == 0 || IsNear(straight, bent, Tolerance(seconds, source));
}

// After the jump the sensor rests or goes on along the jump, or moves as it did before. It may have
// jumped at any time since the last sample.
bool MotionGate::ContinuesJump(const Sample& sample, const Source& source) const {
  const double most = 2.0 + rejected_;
  const double seconds = std::max(sample.time - suspect_.time, source.period);
  const Distance reach = Reach(seconds, seconds, 1, source);
  const Distance tolerance = Tolerance(seconds, source);
  Path asBefore(before_, last_, stepsToLast_);
  asBefore.MoveTo(suspect_);
  for (const Path& path : {Path(last_, suspect_, 1), asBefore}) {
    if (damaged_ == 0 && IsWithin(path, sample, 0, most, reach)) return true;
    const Nearest nearest = NearestOn(path, sample, 1, 0, most);
    const double spread = SpreadOfLine(std::max(nearest.step, 1.0), 1);
    const auto isNear = [&](std::size_t i) {
      return nearest.off[i] <= tolerance[i] + kMargin * spread * straight_.off[i];
    };
    if (isNear(0) && isNear(1)) return true;
  }
  return false;
}

// One sample, as the first after a gap, does not make everything plausible.
void MotionGate::Learn(Usual& usual, const Fit& fit, const Source& source) {
  const Distance tolerance = Tolerance(source.period, source);
  usual.learned = std::min(usual.learned + 1, kMemory);
  for (std::size_t i = 0; i < tolerance.size(); ++i) {
    const double most = 2 * (tolerance[i] + kMargin * usual.off[i]);
    usual.off[i] += (std::min(fit.off[i] / fit.spread, most) - usual.off[i]) / usual.learned;
  }
}

// ---- Samples ---------------------------------------------------------------------------------

bool MotionGate::Accept(Sample sample, const Source& source) {
  if (rejected_ >= kMostRejected) Slacken();
  if (taken_ == 0 || rejected_ >= kMostRejected || sample.time - last_.time > kPause) {
    Begin(sample, source);
    return true;
  }
  TurnToward(last_.rotation, sample.rotation);
  const Steps steps = StepsTo(sample);
  const Fit straight = FitStraight(sample, steps);
  const Fit bent = FitBent(sample, steps);
  if (damaged_ > 0) --damaged_;
  if (IsPlausible(sample, steps, straight, bent, source)) {
    if (rejected_ > 0 && impossible_) damaged_ = kRemembersDamage;
    if (onPath_ >= kLine) Learn(straight_, straight, source);
    if (onPath_ >= kBend) Learn(bent_, bent, source);
    Take(sample, StepsTaken(steps, straight));
    return true;
  }
  if (rejected_ > 0 && ContinuesJump(sample, source)) {
    Slacken();
    Take(suspect_, rejected_);
    Take(sample, 1);
    onPath_ = kLine;
    return true;
  }
  ++rejected_;
  suspect_ = sample;
  impossible_ = !IsPossible(sample, steps, source);
  return false;
}

void MotionGate::Begin(const Sample& sample, const Source& source) {
  const double slack = slack_;
  const int damaged = damaged_;
  *this = {};
  slack_ = slack;
  damaged_ = damaged;
  taken_ = onPath_ = 1;
  period_ = std::min(source.period, kPause);
  older_ = before_ = last_ = sample;
}

// Good samples were rejected: on a busy machine times are less certain than they were.
void MotionGate::Slacken() { slack_ = std::min(2 * slack_, kMostSlack); }

// The source's period is the shortest: a unit may send of other sensors too. Few records are lost.
void MotionGate::LearnPeriod(double seconds) {
  const double took = seconds / (1 + rejected_);
  if (taken_ < kLine) {
    period_ = std::max(period_, took);
  } else {
    period_ += (std::clamp(took, period_ / 2, period_ * 1.5) - period_) / kMemory;
  }
}

void MotionGate::Take(const Sample& sample, double steps) {
  LearnPeriod(sample.time - last_.time);
  taken_ = std::min(taken_ + 1, kLearning);
  onPath_ = std::min(onPath_ + 1, kLearning);
  slack_ = std::max(kLeastSlack, slack_ * 0.98);
  rejected_ = 0;
  older_ = before_;
  before_ = last_;
  last_ = sample;
  stepsToBefore_ = stepsToLast_;
  stepsToLast_ = steps;
}

}  // namespace kinetrel

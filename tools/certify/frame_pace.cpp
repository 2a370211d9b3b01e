#include "certify/frame_pace.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kinetrel::certify {
namespace {

constexpr std::size_t kFramesToDecide = 64;
constexpr std::int64_t kBreak = std::numeric_limits<std::int64_t>::min();
constexpr double kGapPeriods = 1.5;
constexpr double kInterruption = 1.0;  // s
constexpr double kInterruptionPeriods = 10;
constexpr double kNearNominal = 0.1;
// Intervals that spread by more of a period are those of frames in bunches.
constexpr double kBunched = 0.3;
// The series strays from a nominal rate by no more: through an adapter that hands over each 16 ms,
// it would otherwise find four frames of 4 ms where a tracker of 240 Hz sends them each 4.17 ms.
constexpr double kNearestNominal = 0.01;
// How much of a frame's distance from its place the series and its period take over. So little that
// frames which come in bunches do not pull the series along with each bunch.
constexpr double kFollow = 0.02;
constexpr double kFollowPeriod = kFollow * kFollow / 4;
// Past so many places in one step the count of them may be wrong by one: the fit begins anew.
constexpr double kSurePlaces = 20;

// Times of a damaged stream may be any numbers: they must not overflow.
double SecondsBetween(std::int64_t from, std::int64_t to) {
  const auto ns = static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
  return static_cast<double>(static_cast<std::int64_t>(ns)) * 1e-9;
}

// The usual one of some intervals: their median, refined by those near it. Where frames come in
// bunches, as through some adapters, the median is far from the mean, and the mean counts.
double UsualInterval(std::vector<double> intervals) {
  if (intervals.empty()) return 0;
  double sum = 0;
  for (const double each : intervals) sum += each;
  const double mean = sum / static_cast<double>(intervals.size());
  const auto middle = intervals.begin() + static_cast<std::ptrdiff_t>(intervals.size() / 2);
  std::nth_element(intervals.begin(), middle, intervals.end());
  const double median = *middle;
  if (median < 0.5 * mean) return mean;
  Spread near;
  for (const double each : intervals) {
    if (std::abs(each - median) < 0.5 * median) near.Add(each);
  }
  return near.count() > 0 ? near.mean() : median;
}

}  // namespace

// ---- LineFit -----------------------------------------------------------------------------------

void LineFit::Add(double x, double y) {
  if (count_ == 0) firstX_ = x;
  lastX_ = x;
  ++count_;
  const double offX = x - meanX_;
  const double offY = y - meanY_;
  meanX_ += offX / count_;
  meanY_ += offY / count_;
  xx_ += offX * (x - meanX_);
  xy_ += offX * (y - meanY_);
  yy_ += offY * (y - meanY_);
}

LineFit::Sums LineFit::pooled() const {
  Sums all = sums_;
  if (count_ < 2) return all;
  all.xx += xx_;
  all.xy += xy_;
  all.yy += yy_;
  all.points += count_;
  ++all.sections;
  return all;
}

void LineFit::EndSection() {
  length_ = Length();
  sums_ = pooled();
  count_ = meanX_ = meanY_ = xx_ = xy_ = yy_ = firstX_ = lastX_ = 0;
}

double LineFit::Residual() const {
  const Sums all = pooled();
  const double rest = all.yy - all.xy * all.xy / all.xx;
  return std::sqrt(std::max(rest, 0.0) / (all.points - all.sections - 1));
}

// ---- FramePace ---------------------------------------------------------------------------------

void FramePace::Add(std::int64_t sampleNs) {
  if (decided_) return Take(sampleNs);
  first_.push_back(sampleNs == kBreak ? kBreak + 1 : sampleNs);
  if (first_.size() > kFramesToDecide) Decide();
}

void FramePace::Interrupt() {
  if (!decided_) {
    if (!first_.empty()) first_.push_back(kBreak);
    return;
  }
  broken_ = true;
}

void FramePace::Finish() {
  if (!decided_ && !first_.empty()) Decide();
}

void FramePace::Decide() {
  std::vector<double> intervals;
  for (std::size_t i = 1; i < first_.size(); ++i) {
    if (first_[i] == kBreak || first_[i - 1] == kBreak) continue;
    const double interval = SecondsBetween(first_[i - 1], first_[i]);
    if (interval >= 0 && interval <= 3600) intervals.push_back(interval);
  }
  period_ = UsualInterval(std::move(intervals));
  if (KeepsNominal()) period_ = 1 / nominal_;
  step_ = period_;
  decided_ = true;
  for (const std::int64_t each : first_) each == kBreak ? Interrupt() : Take(each);
  first_ = {};
}

void FramePace::Take(std::int64_t sampleNs) {
  ++frames_;
  if (!hasLast_) return BeginSection(sampleNs);
  const double interval = SecondsBetween(last_, sampleNs);
  const bool broken = std::exchange(broken_, false);
  if (interval < 0) {  // two writers at once, or a clock that was set back
    if (broken) ++interruptions_;
    return BeginSection(sampleNs);
  }
  ++intervalsInAll_;
  seconds_ += interval;
  const bool isLong = interval > kInterruption && interval > kInterruptionPeriods * period_;
  if (broken || isLong) {
    ++interruptions_;
    interruptedSeconds_ += interval;
    return BeginSection(sampleNs);
  }
  last_ = sampleNs;
  if (interval >= kGapPeriods * period_ && period_ > 0) {
    ++gaps_;
    longestGap_ = std::max(longestGap_, interval);
  } else {
    intervals_.Add(interval);
    const double off = interval - period_;
    (off < 0 ? shorter_ : longer_).Add(std::llround(std::abs(off) * 1e9));
  }
  Place(sampleNs);
}

void FramePace::BeginSection(std::int64_t sampleNs) {
  EndFits();
  hasLast_ = true;
  last_ = sampleNs;
  sectionStart_ = sampleNs;
  expected_ = 0;
  place_ = 0;
  counted_ = 0;
  fit_.Add(0, 0);
  countFit_.Add(0, 0);
}

void FramePace::Place(std::int64_t sampleNs) {
  if (period_ <= 0) return;
  const double time = SecondsBetween(sectionStart_, sampleNs);
  const double steps = std::max(std::round((time - expected_) / step_), 0.0);
  missing_ += static_cast<std::int64_t>(steps) - 1;
  place_ += steps;
  expected_ += steps * step_;
  if (steps > 0) Follow(time - expected_);  // once for each bunch
  if (steps > kSurePlaces) EndFits();
  ++counted_;
  fit_.Add(place_, time - place_ * period_);
  countFit_.Add(counted_, time - counted_ * period_);
}

void FramePace::Follow(double off) {
  expected_ += kFollow * off;
  const double farthest = (KeepsNominal() ? kNearestNominal : kNearNominal) * period_;
  step_ = std::clamp(step_ + kFollowPeriod * off, period_ - farthest, period_ + farthest);
}

void FramePace::EndFits() {
  fit_.EndSection();
  countFit_.EndSection();
}

double FramePace::DeliveredHertz() const {
  return seconds_ > 0 ? static_cast<double>(intervalsInAll_) / seconds_ : 0;
}

double FramePace::RunningHertz() const {
  const double running = seconds_ - interruptedSeconds_;
  return running > 0 ? static_cast<double>(intervalsInAll_ - interruptions_) / running : 0;
}

double FramePace::IntervalQuantile(double share) const {
  const auto all = static_cast<double>(intervals_.count());
  if (all == 0) return 0;
  const double shorter = static_cast<double>(shorter_.count()) / all;
  const double off = share < shorter
                         ? -shorter_.Quantile(1 - share / shorter)
                         : longer_.Quantile((share - shorter) / std::max(1 - shorter, 1e-12));
  return std::clamp(period_ + off * 1e-9, intervals_.low(), intervals_.high());
}

double FramePace::IntervalsBelow(double seconds) const {
  const double off = (seconds - period_) * 1e9;
  if (off < 0) return static_cast<double>(shorter_.count()) - shorter_.CountBelow(-off);
  return static_cast<double>(shorter_.count()) + longer_.CountBelow(off);
}

double FramePace::MissingShare() const {
  const auto missing = static_cast<double>(Missing());
  return frames_ == 0 ? 0 : missing / (missing + static_cast<double>(frames_));
}

bool FramePace::KeepsNominal() const {
  return nominal_ > 0 && std::abs(period_ * nominal_ - 1) < kNearNominal;
}

ClockFit FramePace::Clock() const {
  ClockFit clock;
  // Where frames come in bunches a place may be wrong by one, but the count of frames is not, as
  // long as none is missing.
  const LineFit& fit = missing_ <= 0 ? countFit_ : fit_;
  const bool isSure = missing_ <= 0 || intervals_.Deviation() < kBunched * period_;
  if (!HasPace() || !isSure || !fit.Fits()) return clock;
  clock.known = true;
  const double interval = period_ + fit.Slope();
  clock.hertz = 1 / interval;
  clock.unevenness = fit.Residual();
  if (KeepsNominal()) clock.partsPerMillion = (clock.hertz / nominal_ - 1) * 1e6;
  clock.uncertainty = 2 * clock.unevenness / (fit.Length() * interval) * 1e6;
  return clock;
}

}  // namespace kinetrel::certify

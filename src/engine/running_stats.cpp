#include "engine/running_stats.h"

#include <algorithm>
#include <cmath>

namespace kinetrel {

void RunningStats::Add(double x) {
  previousMin_ = min_;
  previousMax_ = max_;
  min_ = std::min(min_, x);
  max_ = std::max(max_, x);
  ++count_;
  sum_ += x;
  sumOfSquares_ += x * x;
  last_ = x;
}

double RunningStats::RemoveLast() {
  const double removed = last_;
  if (!std::isfinite(removed)) return removed;
  --count_;
  min_ = previousMin_;
  max_ = previousMax_;
  sum_ -= removed;
  sumOfSquares_ -= removed * removed;
  last_ = kNoSample;
  return removed;
}

void RunningStats::Reset() { *this = RunningStats{}; }

double RunningStats::GetMean() const { return count_ != 0 ? sum_ / count_ : 0.0; }

double RunningStats::GetVariance() const {
  if (count_ == 0) return 0.0;
  const double mean = GetMean();
  return sumOfSquares_ / count_ - mean * mean;
}

double RunningStats::GetStdDev() const {
  if (count_ <= 1) return 0.0;
  // Rounding can leave the variance of equal samples just below zero.
  return std::sqrt(std::max(0.0, GetVariance()) * count_ / (count_ - 1));
}

}  // namespace kinetrel

// Mean, deviation and extremes of a growing series of samples, without keeping them.
#pragma once

#include <limits>

namespace kinetrel {

class RunningStats {
 public:
  void Add(double x);

  // Removes the last sample and returns it. Infinity: no sample since the last removal.
  double RemoveLast();
  void Reset();

  double GetMin() const { return min_; }
  double GetMax() const { return max_; }
  double GetMean() const;
  double GetVariance() const;
  double GetStdDev() const;  // of the sample: with count - 1
  double GetLast() const { return last_; }
  int GetCount() const { return count_; }

 private:
  static constexpr double kNoSample = std::numeric_limits<double>::infinity();

  double min_ = std::numeric_limits<double>::max();
  double max_ = 0.0;
  double sum_ = 0.0;
  double sumOfSquares_ = 0.0;
  double last_ = kNoSample;
  double previousMin_ = std::numeric_limits<double>::max();
  double previousMax_ = 0.0;
  int count_ = 0;
};

}  // namespace kinetrel

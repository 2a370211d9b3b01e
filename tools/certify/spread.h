// Mean and standard deviation of numbers, one at a time.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace kinetrel::certify {

// Welford's method: exact also for small deviations from a large mean.
class Spread {
 public:
  void Add(double value) {
    low_ = count_ == 0 ? value : std::min(low_, value);
    high_ = count_ == 0 ? value : std::max(high_, value);
    ++count_;
    const double off = value - mean_;
    mean_ += off / static_cast<double>(count_);
    squares_ += off * (value - mean_);
  }

  std::uint64_t count() const { return count_; }
  double mean() const { return mean_; }
  double low() const { return low_; }
  double high() const { return high_; }
  double squares() const { return squares_; }  // sum of the squared deviations from the mean
  double Deviation() const {
    return count_ < 2 ? 0.0 : std::sqrt(squares_ / static_cast<double>(count_ - 1));
  }

 private:
  std::uint64_t count_ = 0;
  double mean_ = 0.0;
  double squares_ = 0.0;
  double low_ = 0.0;
  double high_ = 0.0;
};

}  // namespace kinetrel::certify

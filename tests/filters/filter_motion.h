// Motions, noise and measures for the tests of filters.
#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "filters/filter_option.h"
#include "filters/rigid_math.h"

namespace kinetrel::test {

inline std::unique_ptr<Filter> Make(const std::string& text) {
  std::string error;
  std::unique_ptr<Filter> filter = MakeFilter(text, error);
  if (filter == nullptr) throw std::invalid_argument(error);
  return filter;
}

inline PoseSample SampleAt(double seconds, const Vector3& position,
                           const Rotation& orientation = kNoRotation) {
  PoseSample sample;
  sample.timeNs = 1'000'000'000'000 + static_cast<std::int64_t>(seconds * 1e9);
  sample.position = position;
  sample.orientation = orientation;
  sample.hasPosition = sample.hasOrientation = true;
  return sample;
}

// A hand that points and waves: up to half a metre, 0.4 to 1.7 Hz, up to about 1.5 m/s.
inline PoseSample HandAt(double seconds) {
  const auto wave = [seconds](double hz, double phase) {
    return std::sin(2.0 * kPi * hz * seconds + phase);
  };
  const Vector3 place = {0.25 * wave(0.4, 0.0) + 0.05 * wave(1.7, 1.0),
                         0.15 * wave(0.7, 0.5) + 0.03 * wave(1.5, 2.0), 0.20 * wave(0.5, 1.5)};
  const Vector3 angles = {0.6 * wave(0.6, 0.3), 0.3 * wave(0.9, 1.1), 0.4 * wave(0.5, 2.0)};
  return SampleAt(seconds, place, FromAngles(angles));
}

// The noise of a magnetic tracker at half a metre: 0.1 mm and 0.03 degrees, each axis.
class Noise {
 public:
  explicit Noise(double metres = 1e-4, double degrees = 0.03, unsigned seed = 7)
      : random_(seed), metres_(0.0, metres), radians_(0.0, degrees * kRadiansPerDegree) {}

  void On(PoseSample& sample) {
    for (double& part : sample.position) part += metres_(random_);
    const Vector3 turn = {radians_(random_), radians_(random_), radians_(random_)};
    sample.orientation = sample.orientation * FromTurn(turn);
  }

 private:
  std::mt19937 random_;
  std::normal_distribution<double> metres_;
  std::normal_distribution<double> radians_;
};

inline double TurnBetween(const Rotation& a, const Rotation& b) {
  return Length(ToTurn(AtUnitLength(Inverse(a) * b)));
}

// The root of the mean square of what is added.
class Rms {
 public:
  void Add(double value) {
    sum_ += value * value;
    ++count_;
  }
  double Value() const { return std::sqrt(sum_ / static_cast<double>(count_)); }

 private:
  double sum_ = 0.0;
  std::size_t count_ = 0;
};

}  // namespace kinetrel::test

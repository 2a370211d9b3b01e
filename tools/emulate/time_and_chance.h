// Time and chance as an emulated device knows them: it asks no clock and no other source of
// randomness, so that a test can play the same hour twice, in a moment.
#pragma once

#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <random>

namespace kinetrel::emulate {

// Time since the emulator started.
using Moment = std::chrono::nanoseconds;

inline constexpr Moment kNever = Moment::max();

// Event `count` of a series of `perSecond` events that began at `start`. Counted from the start and
// never from the event before, so that thousands of events later it is still on time.
constexpr Moment NthOf(Moment start, std::uint64_t count, double perSecond) {
  return start + Moment(static_cast<std::int64_t>(1e9 * static_cast<double>(count) / perSecond));
}

// A normally distributed number of mean 0 and standard deviation 1 from two random words.
inline double NormalFrom(std::uint64_t first, std::uint64_t second) {
  const double radius = std::sqrt(-2 * std::log((static_cast<double>(first >> 11) + 1) * 0x1p-53));
  return radius * std::cos(2 * std::numbers::pi * static_cast<double>(second >> 11) * 0x1p-53);
}

// Moments from the ticks of a system clock. A process that was stopped goes on from where it was:
// a step of more than kLongestStep takes no time, so no device has to make up for it.
class EmulatorClock {
 public:
  static constexpr Moment kLongestStep = std::chrono::seconds(1);

  // partsPerMillion  by which this clock is faster than the system's.
  EmulatorClock(std::int64_t origin, std::int64_t ticksPerSecond, double partsPerMillion = 0)
      : origin_(origin), ticksPerSecond_(ticksPerSecond), partsPerMillion_(partsPerMillion) {}

  Moment At(std::int64_t ticks) {
    const Moment now = Elapsed(ticks) - skipped_;
    if (now > last_ + kLongestStep) {
      skipped_ += now - last_;
    } else if (now > last_) {
      last_ = now;
    }
    return last_;
  }

 private:
  // Whole seconds first: the ticks of ten seconds times 10^9 do not fit into 64 bits.
  Moment Elapsed(std::int64_t ticks) const {
    const std::int64_t elapsed = ticks - origin_;
    const Moment time = std::chrono::seconds(elapsed / ticksPerSecond_) +
                        Moment(elapsed % ticksPerSecond_ * 1'000'000'000 / ticksPerSecond_);
    return time + Moment(std::llround(static_cast<double>(time.count()) * partsPerMillion_ * 1e-6));
  }

  std::int64_t origin_;
  std::int64_t ticksPerSecond_;
  double partsPerMillion_;
  Moment last_{0};
  Moment skipped_{0};
};

// The same numbers in every run with the same seed, whatever the standard library.
class RandomSource {
 public:
  explicit RandomSource(std::uint64_t seed) : engine_(seed) {}

  std::byte Byte() { return static_cast<std::byte>(engine_() >> 56); }
  std::size_t Below(std::size_t limit) { return limit == 0 ? 0 : engine_() % limit; }
  bool Happens(double probability) {
    return static_cast<double>(engine_() >> 11) * 0x1p-53 < probability;
  }
  double Normal() {
    const std::uint64_t first = engine_();
    return NormalFrom(first, engine_());
  }

 private:
  std::mt19937_64 engine_;
};

}  // namespace kinetrel::emulate

// Seconds since a start, on the machine's monotonic clock.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace kinetrel {

class TrackTimer {
 public:
  TrackTimer()
      : secondsPerTick_(1.0 / static_cast<double>(ClockTicksPerSecond())),
        startCount_(ClockTicks()),
        lastCount_(startCount_) {}

  // Reads the clock.
  double ElapsedSeconds() {
    lastCount_ = ClockTicks();
    return static_cast<double>(lastCount_ - startCount_) * secondsPerTick_;
  }

  // The start, as a reading of ClockTicks().
  std::int64_t startCount() const { return startCount_; }

 private:
  double secondsPerTick_;
  std::int64_t startCount_;
  std::int64_t lastCount_;
};

}  // namespace kinetrel

#include "platform/clock.h"

namespace kinetrel {

Deadline::Deadline(Milliseconds fromNow)
    : end_(ClockTicks() + fromNow.count() * (ClockTicksPerSecond() / 1000)) {}

Milliseconds Deadline::Remaining() const {
  const std::int64_t left = end_ - ClockTicks();
  if (left <= 0) return Milliseconds(0);
  const std::int64_t perMillisecond = ClockTicksPerSecond() / 1000;
  return Milliseconds((left + perMillisecond - 1) / perMillisecond);
}

}  // namespace kinetrel

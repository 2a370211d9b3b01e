#include <limits>

#include "platform/clock.h"

namespace kinetrel {
namespace {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

std::int64_t TicksPerMillisecond() { return ClockTicksPerSecond() / 1000; }

// The tick `fromNow` away, or kNever where that lies past all ticks.
std::int64_t TickAfter(Milliseconds fromNow) {
  const std::int64_t now = ClockTicks();
  if (fromNow.count() >= (kNever - now) / TicksPerMillisecond()) return kNever;
  return now + fromNow.count() * TicksPerMillisecond();
}

}  // namespace

Deadline::Deadline(Milliseconds fromNow) : end_(TickAfter(fromNow)) {}

Milliseconds Deadline::Remaining() const {
  if (end_ == kNever) return kForever;
  const std::int64_t left = end_ - ClockTicks();
  if (left <= 0) return Milliseconds(0);
  return Milliseconds((left + TicksPerMillisecond() - 1) / TicksPerMillisecond());
}

}  // namespace kinetrel

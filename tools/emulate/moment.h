// Time as an emulated device knows it.
#pragma once

#include <chrono>
#include <cstdint>

namespace kinetrel {

// Since the emulator started. A device sees no other clock, so that a test may walk it through an
// hour in a moment, and twice the same way.
using Moment = std::chrono::nanoseconds;

inline constexpr Moment kNever = Moment::max();

// Event `count` of a series of `perSecond` that began at `start`. From the start and never from the
// event before: thousands of them later it is still on time.
constexpr Moment NthOf(Moment start, std::uint64_t count, double perSecond) {
  return start + Moment(static_cast<std::int64_t>(1e9 * static_cast<double>(count) / perSecond));
}

}  // namespace kinetrel

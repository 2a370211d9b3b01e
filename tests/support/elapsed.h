// How long something took, by the product's own clock.
#pragma once

#include "platform/clock.h"

namespace kinetrel::test {

// Since a moment of ClockTicks.
inline double MillisecondsSince(std::int64_t start) {
  return static_cast<double>(ClockTicks() - start) * 1e3 /
         static_cast<double>(ClockTicksPerSecond());
}

}  // namespace kinetrel::test

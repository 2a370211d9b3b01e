#include "platform/clock.h"

#include <cerrno>
#include <ctime>

#include "platform/posix/os.h"

namespace kinetrel {

std::int64_t ClockTicks() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

std::int64_t ClockTicksPerSecond() { return 1'000'000'000; }

void SleepFor(Milliseconds time) {
  if (time.count() <= 0) return;
  const timespec end = MomentAfter(CLOCK_MONOTONIC, time);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

}  // namespace kinetrel

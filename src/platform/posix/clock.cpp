#include "platform/clock.h"

#include <cerrno>
#include <ctime>

namespace kinetrel {

std::int64_t ClockTicks() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

std::int64_t ClockTicksPerSecond() { return 1'000'000'000; }

void SleepFor(Milliseconds time) {
  if (time.count() <= 0) return;
  timespec end{};
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += time.count() / 1000;
  end.tv_nsec += (time.count() % 1000) * 1'000'000;
  if (end.tv_nsec >= 1'000'000'000) {
    end.tv_nsec -= 1'000'000'000;
    ++end.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

}  // namespace kinetrel

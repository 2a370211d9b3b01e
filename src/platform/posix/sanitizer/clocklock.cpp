// For programs under the thread sanitizer only. The one of g++ 12 does not notice that
// pthread_mutex_clocklock locks a mutex, and reports the unlock as a fault. It knows
// pthread_mutex_timedlock.
#include <pthread.h>

#include <ctime>

namespace {

constexpr long kSecond = 1'000'000'000;

long Nanoseconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return now.tv_sec * kSecond + now.tv_nsec;
}

}  // namespace

extern "C" int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                       const timespec* end) noexcept {
  const long left = end->tv_sec * kSecond + end->tv_nsec - Nanoseconds(clock);
  const long wall = Nanoseconds(CLOCK_REALTIME) + left;
  const timespec wallEnd{wall / kSecond, wall % kSecond};
  return pthread_mutex_timedlock(mutex, &wallEnd);
}

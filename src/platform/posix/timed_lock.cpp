#include "platform/posix/timed_lock.h"

#include <cerrno>

namespace kinetrel {

timespec After(clockid_t clock, Milliseconds time) {
  timespec moment{};
  ::clock_gettime(clock, &moment);
  moment.tv_sec += time.count() / 1000;
  moment.tv_nsec += (time.count() % 1000) * 1'000'000;
  if (moment.tv_nsec >= 1'000'000'000) {
    moment.tv_nsec -= 1'000'000'000;
    ++moment.tv_sec;
  }
  return moment;
}

int LockWithin(pthread_mutex_t* mutex, Milliseconds timeout) {
  if (timeout == kForever) return pthread_mutex_lock(mutex);
  const int tried = pthread_mutex_trylock(mutex);
  if (tried != EBUSY || timeout.count() <= 0) return tried;
  timespec end = After(CLOCK_MONOTONIC, timeout);
  const int code = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &end);
  if (code != EINVAL) return code;
  // Kernels before 5.14 know no monotonic end for a priority-inheriting lock.
  end = After(CLOCK_REALTIME, timeout);
  return pthread_mutex_timedlock(mutex, &end);
}

}  // namespace kinetrel

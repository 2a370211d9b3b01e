#include "platform/mutex.h"

#include <cerrno>

#include "platform/posix/os.h"

namespace kinetrel {

int LockWithin(pthread_mutex_t* mutex, Milliseconds timeout) {
  if (timeout == kForever) return pthread_mutex_lock(mutex);
  const int tried = pthread_mutex_trylock(mutex);
  if (tried != EBUSY || timeout.count() <= 0) return tried;
  timespec end = MomentAfter(CLOCK_MONOTONIC, timeout);
  const int code = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &end);
  if (code != EINVAL) return code;
  // Kernels before 5.14 take no monotonic deadline for a priority-inheriting lock.
  end = MomentAfter(CLOCK_REALTIME, timeout);
  return pthread_mutex_timedlock(mutex, &end);
}

struct PriorityMutex::Os {
  pthread_mutex_t mutex;
};

PriorityMutex::PriorityMutex() : os_(std::make_unique<Os>()) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
  pthread_mutex_init(&os_->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

PriorityMutex::~PriorityMutex() { pthread_mutex_destroy(&os_->mutex); }

void PriorityMutex::lock() { pthread_mutex_lock(&os_->mutex); }
bool PriorityMutex::try_lock() { return pthread_mutex_trylock(&os_->mutex) == 0; }
bool PriorityMutex::LockWithin(Milliseconds timeout) {
  return kinetrel::LockWithin(&os_->mutex, timeout) == 0;
}
void PriorityMutex::unlock() { pthread_mutex_unlock(&os_->mutex); }

}  // namespace kinetrel

#include "platform/priority_mutex.h"

#include <pthread.h>

#include "platform/posix/timed_lock.h"

namespace kinetrel {

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

// Waiting for a pthread mutex until a moment.
#pragma once

#include <pthread.h>

#include <ctime>

#include "platform/clock.h"

namespace kinetrel {

// The moment `time` from now on `clock`.
timespec After(clockid_t clock, Milliseconds time);

// What pthread_mutex_lock answers, or EBUSY or ETIMEDOUT when the time was up. kForever waits
// without end.
int LockWithin(pthread_mutex_t* mutex, Milliseconds timeout);

}  // namespace kinetrel

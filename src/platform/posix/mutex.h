// Waits for a pthread mutex with a time-out.
#pragma once

#include <pthread.h>

#include <ctime>

#include "platform/clock.h"

namespace kinetrel {

// The moment `time` from now on `clock`.
timespec After(clockid_t clock, Milliseconds time);

// Returns what pthread_mutex_lock returns, or EBUSY or ETIMEDOUT when the time has passed. With
// kForever it waits without end.
int LockWithin(pthread_mutex_t* mutex, Milliseconds timeout);

}  // namespace kinetrel

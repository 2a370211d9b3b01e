// What every source of this system needs: errno as a Status, moments, waiting for a pthread mutex.
#pragma once

#include <pthread.h>

#include <ctime>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

// The one table of errno. `what` says what was being done; its text must live for ever.
Status StatusFromErrno(int code, const char* what);

// The same for the calls of a socket, which have codes of their own.
Status SocketFailure(int code, const char* what);

// The moment `time` from now on `clock`.
timespec MomentAfter(clockid_t clock, Milliseconds time);

// Returns what pthread_mutex_lock returns, or EBUSY or ETIMEDOUT when the time has passed. With
// kForever it waits without end.
int LockWithin(pthread_mutex_t* mutex, Milliseconds timeout);

}  // namespace kinetrel

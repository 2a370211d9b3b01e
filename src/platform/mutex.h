// Mutexes of this process that the compiler can check, and the scope that holds one.
//
// Threads  locked and unlocked by the same thread. Only RecursiveMutex may be locked again by the
//          thread that holds it.
#pragma once

#include <memory>
#include <mutex>

#include "platform/annotations.h"
#include "platform/clock.h"

namespace kinetrel {

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class CAPABILITY("mutex") RecursiveMutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

// On Linux its holder runs at the priority of the highest thread that waits for it. So the
// time-critical thread never waits behind an ordinary thread that the system does not let run.
class CAPABILITY("mutex") PriorityMutex {
 public:
  PriorityMutex();
  ~PriorityMutex();
  PriorityMutex(const PriorityMutex&) = delete;
  PriorityMutex& operator=(const PriorityMutex&) = delete;

  void lock() ACQUIRE();
  bool try_lock() TRY_ACQUIRE(true);
  bool LockWithin(Milliseconds timeout) TRY_ACQUIRE(true);  // false: not locked in time
  void unlock() RELEASE();

 private:
  struct Os;  // posix/mutex.cpp, win32/mutex.cpp
  std::unique_ptr<Os> os_;
};

// Holds a mutex from here to the end of the scope.
template <typename AnyMutex>
class SCOPED_CAPABILITY Lock {
 public:
  explicit Lock(AnyMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~Lock() RELEASE() { mutex_.unlock(); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  AnyMutex& mutex_;
};

}  // namespace kinetrel

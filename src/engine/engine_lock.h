// The engine's lock, held. An operation that needs the lock takes an EngineLock as an argument: the
// compiler checks it, and each place that leaves the lock can be found. REQUIRES on the
// operation lets clang check the guarded data as well.
#pragma once

#include <mutex>
#include <utility>

#include "platform/mutex.h"

namespace kinetrel {

class SCOPED_CAPABILITY EngineLock {
 public:
  explicit EngineLock(PriorityMutex& mutex) ACQUIRE(mutex) : held_(mutex) {}
  ~EngineLock() RELEASE() = default;
  EngineLock(const EngineLock&) = delete;
  EngineLock& operator=(const EngineLock&) = delete;

  // Tells the compiler that this lock holds `mutex`, where it cannot see that: in a lambda, and in
  // a class that reaches the mutex by a pointer of its own. Does nothing at run time.
  void AssertHolds(const PriorityMutex& mutex) const ASSERT_CAPABILITY(mutex) {
    static_cast<void>(mutex);
  }

  // Runs `action` without the lock, then takes it again. All that the lock guards may have changed
  // meanwhile. The compiler checks `action` as code without the lock.
  template <typename Action>
  auto Leave(Action&& action) {
    held_.unlock();
    const Retake retake{held_};
    return std::forward<Action>(action)();
  }

 private:
  struct Retake {
    std::unique_lock<PriorityMutex>& held;
    ~Retake() { held.lock(); }
  };

  std::unique_lock<PriorityMutex> held_;
};

}  // namespace kinetrel

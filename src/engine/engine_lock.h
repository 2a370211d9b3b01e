// The engine's lock, held. An operation that needs the lock takes an EngineLock as an argument: the
// compiler checks it, and each place that leaves the lock can be found.
#pragma once

#include <mutex>
#include <utility>

#include "platform/mutex.h"

namespace kinetrel {

class EngineLock {
 public:
  explicit EngineLock(PriorityMutex& mutex) : held_(mutex) {}

  // Runs `action` without the lock, then takes it again. All that the lock guards may have changed
  // meanwhile.
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

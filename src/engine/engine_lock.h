// The engine's lock, held. An operation that needs it held takes one as an argument, so that the
// compiler checks it and every place that leaves the lock for a while is to be seen.
#pragma once

#include <mutex>
#include <utility>

#include "platform/mutex.h"

namespace kinetrel {

class EngineLock {
 public:
  explicit EngineLock(PriorityMutex& mutex) : held_(mutex) {}

  // Runs `action` without the lock, then takes it again. What the lock guards may be another
  // afterwards.
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

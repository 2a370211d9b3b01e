// A mutex of this process whose holder runs (on Linux) at the priority of the highest thread that
// waits for it, so that the time-critical thread never waits behind an ordinary one that is kept
// from running. Works with std::unique_lock and std::lock_guard. Not recursive.
#pragma once

#include <memory>

#include "platform/clock.h"

namespace kinetrel {

class PriorityMutex {
 public:
  PriorityMutex();
  ~PriorityMutex();
  PriorityMutex(const PriorityMutex&) = delete;
  PriorityMutex& operator=(const PriorityMutex&) = delete;

  void lock();
  bool try_lock();
  bool LockWithin(Milliseconds timeout);  // false: still another's when the time was up
  void unlock();

 private:
  struct Os;
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

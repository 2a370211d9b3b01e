// Threads, waiting for their end, and their priority.
#pragma once

#include <functional>
#include <memory>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

// Destroying the object neither ends the thread nor waits for it. A thread that hangs in a device
// is abandoned, so `body` must own everything it uses.
class Thread {
 public:
  static Result<Thread> Start(std::function<void()> body);

  Thread(Thread&&) noexcept;
  Thread& operator=(Thread&&) noexcept;
  ~Thread();

  // True when the thread has ended within `timeout`. Any number of threads may wait at once.
  bool Wait(Milliseconds timeout) const;
  bool IsCurrent() const;

 private:
  struct State;
  explicit Thread(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

// Makes the calling thread time-critical, and on Windows also raises the class of its process.
// Denied: this account may not. Then on Linux the thread gets the best ordinary priority that the
// account may have.
Status RaiseToTimeCritical();

}  // namespace kinetrel

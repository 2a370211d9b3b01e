// Timers for those who pace themselves.
#pragma once

#include <memory>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

// Raised timer resolution for the object's lifetime, so that its sleeps end on time to well below
// a millisecond.
//
// Where the resolution belongs to a thread and not to the process (Linux), the object knows no
// thread at its construction: Sleep raises it for the sleeping thread while it sleeps.
//
// Threads  any may sleep, several at once.
class TimerResolution {
 public:
  TimerResolution();
  ~TimerResolution();
  TimerResolution(const TimerResolution&) = delete;
  TimerResolution& operator=(const TimerResolution&) = delete;

  bool Raised() const { return raised_; }  // false: the system does not offer it

  void Sleep(Milliseconds time) const;  // as SleepFor

 private:
  bool raised_;
};

// A timer that ticks at a fixed period; a tick wakes one waiter, and is then over.
//
// Ticks that nobody waited for collapse into one, and do not shift those that follow.
//
// Threads  Start and Stop one at a time, while nobody waits.
// Memory   Wait allocates nothing.
class PeriodicTimer {
 public:
  PeriodicTimer();
  ~PeriodicTimer();
  PeriodicTimer(PeriodicTimer&&) noexcept;
  PeriodicTimer& operator=(PeriodicTimer&&) noexcept;

  // The first tick comes at once, the next ones every `period`, at least 1 ms. Starting a timer
  // that runs begins anew. NoSpace: the system's limit of open objects is reached.
  Status Start(Milliseconds period);

  void Stop();  // no ticks from now on, until the next Start

  // True on a tick; false when none came in time. A stopped timer has none.
  bool Wait(Milliseconds timeout) const;

 private:
  struct Os;  // posix/timer.cpp, win32/timer.cpp
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

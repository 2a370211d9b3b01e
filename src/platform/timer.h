// Sleeping to the millisecond, and periodic ticks.
#pragma once

#include <memory>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

// Raises the timer resolution for the object's lifetime. Its sleeps end on time to well below a
// millisecond.
//
// On Linux the resolution belongs to a thread, so Sleep raises it for the calling thread, and only
// during the sleep.
//
// Threads  any number may sleep at once.
class TimerResolution {
 public:
  TimerResolution();
  ~TimerResolution();
  TimerResolution(const TimerResolution&) = delete;
  TimerResolution& operator=(const TimerResolution&) = delete;

  bool IsRaised() const { return raised_; }  // false: the system does not offer it

  void Sleep(Milliseconds time) const;  // as SleepFor

 private:
  bool raised_;
};

// A timer that ticks at a fixed period. Each tick wakes one waiter.
//
// Ticks that come while no thread waits become one. They do not shift the following ticks.
//
// Threads  any number may wait; Start and Stop one at a time, while no thread waits.
// Memory   Wait allocates nothing.
class PeriodicTimer {
 public:
  PeriodicTimer();
  ~PeriodicTimer();
  PeriodicTimer(PeriodicTimer&&) noexcept;
  PeriodicTimer& operator=(PeriodicTimer&&) noexcept;

  // The first tick comes at once, the next ones every `period`, at least 1 ms. Starting a running
  // timer restarts it. NoSpace: the system's limit of open objects is reached.
  Status Start(Milliseconds period);

  void Stop();  // no ticks from now on, until the next Start

  // True on a tick; false when none came in time. A stopped timer has none.
  bool Wait(Milliseconds timeout) const;

 private:
  struct Os;  // posix/timer.cpp, win32/timer.cpp
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

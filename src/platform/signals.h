// Signals: requests to stop a console program, and on Linux the two user signals and broken pipes.
#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "platform/clock.h"

namespace kinetrel {

// ---- Requests to stop ----------------------------------------------------------------------

// Requests that follow the first one within this time count as the same request.
inline constexpr Milliseconds kOneStopWish{250};

// Catches the requests to stop: SIGINT, SIGTERM and SIGHUP on Linux, console control events on
// Windows. The first one is stored into `request` (the system's number, never 0) and the program
// goes on; output that a terminal holds back is let go. A second one, later than kOneStopWish, ends
// the program at once and restores the terminal.
//
// A signal stays ignored when the process was started so (nohup), and keeps a handler that other
// code installed. From now on a broken output pipe makes a write fail and does not end the process.
//
// request  must live as long as the process.
void CatchStopSignals(std::atomic<int>& request);

// ---- User signals --------------------------------------------------------------------------

enum class UserSignal { First, Second };  // SIGUSR1, SIGUSR2

// While the object lives, these signals wait until Take instead of ending the process. Several of
// one kind count as one. Windows has none and never delivers one.
//
// Threads  constructed before any other thread is started; used by one thread at a time.
class UserSignals {
 public:
  UserSignals();
  ~UserSignals();
  UserSignals(const UserSignals&) = delete;
  UserSignals& operator=(const UserSignals&) = delete;

  std::optional<UserSignal> Take();  // never waits

 private:
  struct Os;  // posix/signals.cpp, win32/signals.cpp
  std::unique_ptr<Os> os_;
};

// ---- Broken pipes --------------------------------------------------------------------------

// While one lives, a write to a broken pipe fails on this thread and does not end the process.
// Threads that this thread starts meanwhile keep that for good. Does nothing on Windows.
class BrokenPipeGuard {
 public:
  BrokenPipeGuard();
  ~BrokenPipeGuard();
  BrokenPipeGuard(const BrokenPipeGuard&) = delete;
  BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

 private:
  bool active_;  // the signal was not blocked before
};

}  // namespace kinetrel

// The two signals that mean what the program that gets them says: SIGUSR1 and SIGUSR2 on Linux. A
// system without such signals never delivers one.
#pragma once

#include <memory>
#include <optional>

namespace kinetrel {

enum class UserSignal { First, Second };

// While one lives, these signals wait to be taken instead of ending the process. Several of one
// kind that wait are one.
//
// Threads  made before any other thread is started, and then used by one at a time.
class UserSignals {
 public:
  UserSignals();
  ~UserSignals();
  UserSignals(const UserSignals&) = delete;
  UserSignals& operator=(const UserSignals&) = delete;

  std::optional<UserSignal> Take();  // never waits

 private:
  struct Os;  // posix/user_signals.cpp
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

// A function run as a job of a small shell on a pseudo-terminal: in the foreground or background,
// suspended and continued, with the shell telling how it fares.
#pragma once

#include <sys/types.h>

#include <functional>

#include "tests/support/wait_until.h"

namespace kinetrel::test {

class PseudoTerminal;

class TerminalJob {
 public:
  enum class Place { Foreground, Background };

  // Runs `body` in a process of its own, with the terminal as its standard streams and every
  // signal at its default; its result is the exit code, without what exit() would do.
  TerminalJob(const PseudoTerminal& terminal, Place place, const std::function<int()>& body);
  ~TerminalJob();  // kills job and shell
  TerminalJob(const TerminalJob&) = delete;
  TerminalJob& operator=(const TerminalJob&) = delete;

  void Signal(int number) const;
  void Move(Place place) const;      // gives it the terminal, or takes it
  void Continue(Place place) const;  // the same, then SIGCONT

  static constexpr int kNothing = -1000;
  static constexpr int StoppedBy(int number) { return 1000 + number; }

  // The job's next change: its exit code, minus the signal that ended it, or StoppedBy(signal);
  // kNothing when there is none in time.
  int NextChange(std::chrono::milliseconds patience = kPatience) const;

 private:
  pid_t shell_ = -1;
  pid_t job_ = -1;
  int commands_ = -1;
  int reports_ = -1;
};

}  // namespace kinetrel::test

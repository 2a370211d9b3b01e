// A program started by a test, with its streams in the test's hands.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/wait_until.h"

namespace kinetrel::test {

class PseudoTerminal;

class ChildProcess {
 public:
  struct Options {
    // In place of the three pipes: the program's terminal, in a session of its own.
    PseudoTerminal* terminal = nullptr;
    std::vector<std::pair<std::string, std::string>> environment = {};  // on top of the test's
    bool emptyInput = false;                                            // standard input at its end
  };

  // `program` is a path, or the name of one of the project's own programs.
  ChildProcess(const std::string& program, std::vector<std::string> arguments, Options options);
  ChildProcess(const std::string& program, std::vector<std::string> arguments)
      : ChildProcess(program, std::move(arguments), Options{}) {}
  ~ChildProcess();  // kills it if it still runs
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  void Signal(int number) const;
  void Send(const std::string& bytes) const;  // to standard input
  void CloseInput();

  // Takes output until it contains `text`.
  bool ExpectOutput(const std::string& text, std::chrono::milliseconds patience = kPatience);
  bool ExpectError(const std::string& text, std::chrono::milliseconds patience = kPatience);
  const std::string& output();  // all of standard output so far
  const std::string& error();   // all of standard error so far

  static constexpr int kStillRuns = -1000;

  // The exit code; minus the signal's number where a signal ended it; kStillRuns. Codes are
  // 0..255 as the system gives them.
  int Wait(std::chrono::milliseconds patience = kPatience);

 private:
  void TakeOutput();

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int error_ = -1;
  std::string outputText_;
  std::string errorText_;
  bool ended_ = false;
  int result_ = 0;
};

}  // namespace kinetrel::test

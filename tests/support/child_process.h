// A program started by a test, with its streams in the test's hands.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/wait_until.h"

namespace kinetrel::test {

class PseudoTerminal;

class ChildProcess {
 public:
  struct Options {
    // In place of the three pipes: the program's terminal, in a session of its own. On Linux.
    PseudoTerminal* terminal = nullptr;
    std::vector<std::pair<std::string, std::string>> environment = {};  // on top of the test's
    bool emptyInput = false;                                            // standard input at its end
    bool noStreams = false;  // started without its three streams. On Linux
  };

  // `program` is a path, or the name of one of the project's own programs, without its ending.
  ChildProcess(const std::string& program, std::vector<std::string> arguments, Options options);
  ChildProcess(const std::string& program, std::vector<std::string> arguments)
      : ChildProcess(program, std::move(arguments), Options{}) {}
  ~ChildProcess();  // kills it if it still runs
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const;
  void Signal(int number) const;              // on Linux
  void Kill();                                // at once, and waits until it is gone
  void Send(const std::string& bytes) const;  // to standard input
  void CloseInput();

  // Takes output until it contains `text`.
  bool ExpectOutput(const std::string& text, std::chrono::milliseconds patience = kPatience) {
    return WaitUntil([&] { return output().find(text) != std::string::npos; }, patience);
  }
  bool ExpectError(const std::string& text, std::chrono::milliseconds patience = kPatience) {
    return WaitUntil([&] { return error().find(text) != std::string::npos; }, patience);
  }
  const std::string& output() { return TakeOutput(), outputText_; }  // standard output so far
  const std::string& error() { return TakeOutput(), errorText_; }    // standard error so far

  static constexpr int kStillRuns = -1000;

  // What Wait answers of a program that Kill ended, or that ended itself so.
  static constexpr int kKilled = -9;

  // The exit code; minus the signal's number where a signal ended it; kStillRuns. Codes are
  // 0..255, as Linux gives them.
  int Wait(std::chrono::milliseconds patience = kPatience);

 private:
  struct Os;  // posix/child_process.cpp, win32/child_process.cpp

  void TakeOutput();

  std::unique_ptr<Os> os_;
  std::string outputText_;
  std::string errorText_;
  bool ended_ = false;
  int result_ = 0;
};

// Variables of this process's environment, which the programs that it starts inherit.
void SetVariable(const std::string& name, const std::string& value);
void UnsetVariable(const std::string& name);

}  // namespace kinetrel::test

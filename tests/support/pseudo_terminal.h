// A real pseudo-terminal: a test holds the far end, the code under test opens the near one.
#pragma once

#include <string>

#include "tests/support/wait_until.h"

struct termios;  // the system's; on Windows nothing uses it

namespace kinetrel::test {

class PseudoTerminal {
 public:
  enum class Mode {
    Raw,    // a serial line: bytes pass as they are
    Cooked  // a person's terminal: echo, line editing, signals
  };

  explicit PseudoTerminal(Mode mode = Mode::Raw);
  ~PseudoTerminal();
  PseudoTerminal(const PseudoTerminal&) = delete;
  PseudoTerminal& operator=(const PseudoTerminal&) = delete;

  const std::string& path() const { return path_; }  // of the near end
  int nearEnd() const { return near_; }              // kept open, so that nothing hangs up early
  int farEnd() const { return far_; }

  void Send(const std::string& bytes) const;  // far to near
  termios Settings() const;                   // of the near end

  // Takes what the near end wrote until it contains `text`; false when it does not in time.
  bool Expect(const std::string& text, std::chrono::milliseconds patience = kPatience);

  // Everything taken so far, and what can be taken at once.
  const std::string& Received();

  void HangUp();     // closes the far end: the plug is pulled
  void CloseNear();  // lets go of the test's own hold of the near end

 private:
  bool TakeMore(std::chrono::milliseconds patience);

  int far_ = -1;
  int near_ = -1;
  std::string path_;
  std::string received_;
};

bool SameSettings(const termios& a, const termios& b);

}  // namespace kinetrel::test

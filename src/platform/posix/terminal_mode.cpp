#include "platform/posix/terminal_mode.h"

#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace kinetrel {
namespace {

constexpr int kInput = STDIN_FILENO;

enum class Mode {
  Off,        // no session, or the process is ending
  Suspended,  // about to stop, or stopped: only the resumption enters again
  Released,   // a session in the background: the terminal is as it was found
  Entering,   // one thread enters; keeps other threads and handlers away from `before`
  Entered
};

// The terminal's mode, one per process like standard input. Written by the session, by threads that
// take keys and by signal handlers, so it is atomic. `before` belongs to the thread that changed
// the mode from Released to Entering; others read it only when the mode is Entered.
struct TerminalMode {
  std::atomic<Mode> mode{Mode::Off};
  std::atomic<pid_t> owner{0};  // a forked child ends without touching its parent's terminal
  termios before{};
};
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
constinit TerminalMode terminal;
static_assert(std::atomic<Mode>::is_always_lock_free && std::atomic<pid_t>::is_always_lock_free);

// A background process that changes or reads the terminal would be stopped.
bool InForeground() {
  const pid_t foreground = ::tcgetpgrp(kInput);
  return foreground == -1 ? errno == ENOTTY : foreground == ::getpgrp();
}

// Keys still raise signals, and output is still translated. Enter stays 13. A read returns at once
// when another process took the key first.
termios KeyModeOf(termios settings) {
  settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  settings.c_iflag &= ~static_cast<tcflag_t>(ICRNL | INLCR | IGNCR);
  settings.c_cc[VMIN] = 0;
  settings.c_cc[VTIME] = 0;
  return settings;
}

// TCSANOW keeps what was typed ahead and does not wait for a terminal that holds its output.
void Apply(const termios& settings) {
  while (::tcsetattr(kInput, TCSANOW, &settings) != 0 && errno == EINTR) {
  }
}

bool Advance(Mode from, Mode to) { return terminal.mode.compare_exchange_strong(from, to); }

void Enter() {
  if (!InForeground() || !Advance(Mode::Released, Mode::Entering)) return;
  const bool known = ::tcgetattr(kInput, &terminal.before) == 0;
  // The mode comes first: a signal from here on has a state to restore.
  if (!Advance(Mode::Entering, known ? Mode::Entered : Mode::Released) || !known) return;
  Apply(KeyModeOf(terminal.before));
  if (terminal.mode.load() == Mode::Off) Apply(terminal.before);  // ended in between
}

void Leave(Mode next) {
  if (terminal.owner.load() != ::getpid()) return;
  const Mode now = terminal.mode.exchange(next);
  if (now == Mode::Entered && InForeground()) Apply(terminal.before);
}

void LeaveForGood() { Leave(Mode::Off); }

// ---- Signals -------------------------------------------------------------------------------

constexpr int kEndingSignals[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGILL,  SIGABRT, SIGBUS,
                                  SIGFPE,  SIGSEGV, SIGSYS,  SIGUSR1, SIGUSR2, SIGPIPE,
                                  SIGALRM, SIGTERM, SIGXCPU, SIGXFSZ};

void SetHandler(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  ::sigaction(number, &action, nullptr);
}

bool HandlerIs(int number, void (*handler)(int)) {
  struct sigaction present {};
  return ::sigaction(number, nullptr, &present) == 0 && (present.sa_flags & SA_SIGINFO) == 0 &&
         present.sa_handler == handler;
}

void Unblock(int number) {
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, number);
  ::pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
}

// A stop that cannot be caught leaves the mode Entered, but the shell has changed the terminal.
void Resume(int) {
  const int savedErrno = errno;
  if (terminal.mode.load() == Mode::Entered && InForeground()) Apply(KeyModeOf(terminal.before));
  Advance(Mode::Suspended, Mode::Released);
  Enter();
  errno = savedErrno;
}

// Gives the terminal back to the shell, then stops the process with the default action.
void Suspend(int number) {
  const int savedErrno = errno;
  if (terminal.mode.load() == Mode::Entered) Leave(Mode::Suspended);
  SetHandler(number, SIG_DFL);
  ::raise(number);
  Unblock(number);  // stops here
  SetHandler(number, Suspend);
  Resume(SIGCONT);  // the system may have refused to stop it
  errno = savedErrno;
}

void RemoveHandler(int number, void (*handler)(int)) {
  if (HandlerIs(number, handler)) SetHandler(number, SIG_DFL);
}

}  // namespace

void ReleaseHeldOutput() {
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    if (::tcgetpgrp(stream) != ::getpgrp()) continue;
    ::tcflow(stream, TCOOFF);  // on its own, the next line would undo no Ctrl-S
    ::tcflow(stream, TCOON);
  }
}

void EndBySignal(int number) {
  LeaveForGood();
  SetHandler(number, SIG_DFL);
  ::raise(number);
  Unblock(number);
}

void InstallHandler(int number, void (*handler)(int)) {
  if (HandlerIs(number, SIG_DFL) || HandlerIs(number, EndBySignal)) SetHandler(number, handler);
}

bool StartKeyMode() {
  if (::isatty(kInput) == 0) return false;
  static const int registered = std::atexit(LeaveForGood);
  static_cast<void>(registered);
  terminal.owner.store(::getpid());
  for (const int number : kEndingSignals) InstallHandler(number, EndBySignal);
  InstallHandler(SIGTSTP, Suspend);
  InstallHandler(SIGCONT, Resume);
  terminal.mode.store(Mode::Released);
  Enter();
  return true;
}

void StopKeyMode() {
  LeaveForGood();
  for (const int number : kEndingSignals) RemoveHandler(number, EndBySignal);
  RemoveHandler(SIGTSTP, Suspend);
  RemoveHandler(SIGCONT, Resume);
}

bool InKeyMode() {
  if (terminal.mode.load() == Mode::Released) Enter();
  return terminal.mode.load() == Mode::Entered;
}

}  // namespace kinetrel

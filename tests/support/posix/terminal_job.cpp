#include "tests/support/terminal_job.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

#include "tests/support/pseudo_terminal.h"

namespace kinetrel::test {
namespace {

constexpr int kShellsOwn[] = {SIGINT, SIGQUIT, SIGTSTP, SIGTTIN, SIGTTOU, SIGHUP};

void HandleShellsOwn(void (*handler)(int)) {
  for (const int number : kShellsOwn) ::signal(number, handler);
}

void Require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

template <typename Value>
bool Tell(int fd, Value value) {
  return ::write(fd, &value, sizeof value) == sizeof value;
}

template <typename Value>
bool Hear(int fd, Value& value, std::chrono::milliseconds patience) {
  pollfd ready{fd, POLLIN, 0};
  if (::poll(&ready, 1, static_cast<int>(patience.count())) != 1) return false;
  return ::read(fd, &value, sizeof value) == sizeof value;
}

void TakeTerminal(int near) {
  ::setsid();
  ::ioctl(near, TIOCSCTTY, 0);
  for (int stream = 0; stream < 3; ++stream) ::dup2(near, stream);
}

[[noreturn]] void RunJob(TerminalJob::Place place, const std::function<int()>& body) {
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (place == TerminalJob::Place::Foreground) ::tcsetpgrp(0, ::getpid());
  const rlimit noCore{0, 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  HandleShellsOwn(SIG_DFL);
  // The thread sanitizer loses a signal that arrives in the middle of a process's first wait.
  ::poll(nullptr, 0, 0);
  ::_exit(body());
}

int ChangeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSTOPPED(status)) return TerminalJob::StoppedBy(WSTOPSIG(status));
  return -WTERMSIG(status);
}

// Obeys the test and reports on the job, for as long as the test lets it. It must outlive the job:
// with the end of a terminal's shell the terminal hangs up and forgets its settings.
[[noreturn]] void RunShell(pid_t job, int commands, int reports) {
  for (;;) {
    TerminalJob::Place place{};
    if (Hear(commands, place, std::chrono::milliseconds(1))) {
      ::tcsetpgrp(0, place == TerminalJob::Place::Foreground ? job : ::getpgrp());
      Tell(reports, 0);
    }
    int status = 0;
    if (::waitpid(job, &status, WNOHANG | WUNTRACED) == job) Tell(reports, ChangeOf(status));
  }
}

}  // namespace

TerminalJob::TerminalJob(const PseudoTerminal& terminal, Place place,
                         const std::function<int()>& body) {
  int commands[2];
  int reports[2];
  Require(::pipe2(commands, O_CLOEXEC) == 0 && ::pipe2(reports, O_CLOEXEC) == 0, "pipe");
  std::fflush(nullptr);
  shell_ = ::fork();
  Require(shell_ >= 0, "fork");
  if (shell_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::close(terminal.farEnd());
    TakeTerminal(terminal.nearEnd());
    HandleShellsOwn(SIG_IGN);
    const pid_t job = ::fork();
    if (job == 0) RunJob(place, body);
    ::setpgid(job, job);
    Tell(reports[1], job);
    RunShell(job, commands[0], reports[1]);
  }
  ::close(commands[0]);
  ::close(reports[1]);
  commands_ = commands[1];
  reports_ = reports[0];
  Require(Hear(reports_, job_, kPatience) && job_ > 0, "job");
}

TerminalJob::~TerminalJob() {
  ::kill(job_, SIGKILL);
  ::kill(shell_, SIGKILL);
  ::waitpid(shell_, nullptr, 0);
  ::close(commands_);
  ::close(reports_);
}

void TerminalJob::Signal(int number) const { ::kill(job_, number); }

void TerminalJob::Move(Place place) const {
  int done = kNothing;
  Require(Tell(commands_, place) && Hear(reports_, done, kPatience) && done == 0, "move job");
}

void TerminalJob::Continue(Place place) const {
  Move(place);
  Signal(SIGCONT);
}

int TerminalJob::NextChange(std::chrono::milliseconds patience) const {
  int change = kNothing;
  return Hear(reports_, change, patience) ? change : kNothing;
}

}  // namespace kinetrel::test

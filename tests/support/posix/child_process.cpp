#include "tests/support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "tests/support/pseudo_terminal.h"

namespace kinetrel::test {
namespace {

struct Pipe {
  int read = -1;
  int write = -1;
};

Pipe MakePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  return {ends[0], ends[1]};
}

void CloseEnd(int& end) {
  if (end >= 0) ::close(end);
  end = -1;
}

std::string PathOf(const std::string& program) {
  if (program.find('/') != std::string::npos) return program;
  return std::string(KINETREL_BIN_DIR) + "/" + program;
}

// Takes what is there without waiting; closes the end when the program has closed its own.
void Drain(int& end, std::string& into) {
  if (end < 0) return;
  char bytes[4096];
  for (;;) {
    pollfd ready{end, POLLIN, 0};
    if (::poll(&ready, 1, 0) != 1) return;
    const ssize_t got = ::read(end, bytes, sizeof bytes);
    if (got <= 0) return CloseEnd(end);
    into.append(bytes, static_cast<std::size_t>(got));
  }
}

}  // namespace

struct ChildProcess::Os {
  pid_t pid = -1;
  int input = -1;
  int output = -1;
  int error = -1;
};

ChildProcess::ChildProcess(const std::string& program, std::vector<std::string> arguments,
                           Options options)
    : os_(std::make_unique<Os>()) {
  std::string path = PathOf(program);
  std::vector<char*> argv = {path.data()};
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  Pipe in;
  Pipe out;
  Pipe err;
  if (options.terminal == nullptr) {
    in = MakePipe();
    out = MakePipe();
    err = MakePipe();
  }
  os_->pid = ::fork();
  if (os_->pid < 0) throw std::runtime_error("fork");
  if (os_->pid == 0) {
    if (options.terminal != nullptr) {
      const int near = options.terminal->nearEnd();
      ::setsid();
      ::ioctl(near, TIOCSCTTY, 0);
      for (int stream = 0; stream < 3; ++stream) ::dup2(near, stream);
      ::close(options.terminal->farEnd());
    } else {
      ::dup2(in.read, 0);
      ::dup2(out.write, 1);
      ::dup2(err.write, 2);
    }
    for (int stream = 0; options.noStreams && stream < 3; ++stream) ::close(stream);
    for (const auto& [name, value] : options.environment) {
      ::setenv(name.c_str(), value.c_str(), 1);
    }
    ::execv(path.c_str(), argv.data());
    ::_exit(127);
  }
  CloseEnd(in.read);
  CloseEnd(out.write);
  CloseEnd(err.write);
  os_->input = in.write;
  os_->output = out.read;
  os_->error = err.read;
  if (options.emptyInput) CloseInput();
}

ChildProcess::~ChildProcess() {
  if (!ended_) {
    ::kill(os_->pid, SIGKILL);
    ::kill(os_->pid, SIGCONT);
    ::waitpid(os_->pid, nullptr, 0);
  }
  CloseEnd(os_->input);
  CloseEnd(os_->output);
  CloseEnd(os_->error);
}

pid_t ChildProcess::pid() const { return os_->pid; }

void ChildProcess::Kill() {
  Signal(SIGKILL);
  Wait();
}

void ChildProcess::Signal(int number) const { ::kill(os_->pid, number); }

void ChildProcess::Send(const std::string& bytes) const {
  if (::write(os_->input, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    throw std::runtime_error("write to program");
  }
}

void ChildProcess::CloseInput() { CloseEnd(os_->input); }

void ChildProcess::TakeOutput() {
  Drain(os_->output, outputText_);
  Drain(os_->error, errorText_);
}

int ChildProcess::Wait(std::chrono::milliseconds patience) {
  int status = 0;
  const bool ended = WaitUntil(
      [&] {
        TakeOutput();
        return ended_ || ::waitpid(os_->pid, &status, WNOHANG) == os_->pid;
      },
      patience);
  if (!ended) return kStillRuns;
  if (!ended_) {
    ended_ = true;
    result_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  TakeOutput();
  return result_;
}

void SetVariable(const std::string& name, const std::string& value) {
  ::setenv(name.c_str(), value.c_str(), 1);
}

void UnsetVariable(const std::string& name) { ::unsetenv(name.c_str()); }

}  // namespace kinetrel::test

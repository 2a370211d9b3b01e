#include "tests/support/peer.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace kinetrel::test {
namespace {

constexpr std::chrono::milliseconds kNow{0};

}  // namespace

std::string UniqueName(const std::string& word) {
  return "kinetrel-test-" + std::to_string(::getpid()) + "-" + word;
}

bool InSystem(const std::string& name) { return std::filesystem::exists("/dev/shm/" + name); }

Peer::~Peer() {
  process_.CloseInput();
  process_.Wait();
}

void Peer::Tell(const std::string& command) { process_.Send(command + "\n"); }

std::string Peer::Answer() {
  const auto answered = [this] {
    return process_.output().find('\n', taken_) != std::string::npos;
  };
  WaitUntil([&] { return answered() || process_.Wait(kNow) != ChildProcess::kStillRuns; },
            3 * kPatience);
  if (!answered()) return "no answer; " + process_.error();
  const std::size_t end = process_.output().find('\n', taken_);
  const std::string line = process_.output().substr(taken_, end - taken_);
  taken_ = end + 1;
  return line;
}

std::string Peer::Ask(const std::string& command) {
  Tell(command);
  return Answer();
}

bool Peer::Asleep(long call) const {
  std::ifstream file("/proc/" + std::to_string(pid()) + "/syscall");
  std::string now;
  return !(file >> now) || now == std::to_string(call);
}

void Peer::Kill() {
  process_.Signal(SIGKILL);
  process_.Wait();
}

}  // namespace kinetrel::test

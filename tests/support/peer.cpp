#include "tests/support/peer.h"

namespace kinetrel::test {
namespace {

constexpr std::chrono::milliseconds kNow{0};

}  // namespace

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

}  // namespace kinetrel::test

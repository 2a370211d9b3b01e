#include "tests/support/scripted_peer.h"

#include <poll.h>
#include <unistd.h>

namespace kinetrel::test {

ScriptedPeer::ScriptedPeer(PseudoTerminal& line, Script script)
    : line_(line), thread_([this, script = std::move(script)] { Play(script); }) {}

ScriptedPeer::~ScriptedPeer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

const std::string& ScriptedPeer::Verdict() {
  if (thread_.joinable()) thread_.join();
  return verdict_;
}

void ScriptedPeer::Play(const Script& script) {
  for (const PeerStep& step : script) {
    if (!PlayStep(step)) return;
  }
}

bool ScriptedPeer::PlayStep(const PeerStep& step) {
  switch (step.kind) {
    case PeerStep::Kind::Expect:
      return Take(step.bytes);
    case PeerStep::Kind::Send:
      line_.Send(step.bytes);
      return true;
    case PeerStep::Kind::Wait:
      std::this_thread::sleep_for(step.time);
      return true;
    case PeerStep::Kind::HangUp:
      line_.HangUp();
      return true;
  }
  return false;
}

// Takes no more than is expected: what follows is for the next step, or for the test.
bool ScriptedPeer::Take(const std::string& expected) {
  std::string came;
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (came != expected) {
    if (stop_ || std::chrono::steady_clock::now() >= end || !expected.starts_with(came)) {
      verdict_ = "expected " + testing::PrintToString(expected) + " but " +
                 testing::PrintToString(came) + " came";
      return false;
    }
    pollfd far{line_.farEnd(), POLLIN, 0};
    if (::poll(&far, 1, 20) <= 0) continue;
    char byte = 0;
    if (::read(line_.farEnd(), &byte, 1) == 1) came += byte;
  }
  return true;
}

}  // namespace kinetrel::test

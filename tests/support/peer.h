// Another process that uses the same named objects, told what to do line by line.
#pragma once

#include <string>

#include "tests/support/child_process.h"
#include "tests/support/peer_world.h"

namespace kinetrel::test {

class Peer {
 public:
  Peer() : process_("track_peer", {}) {}
  ~Peer() {  // lets it finish, so that it leaves nothing in the system
    process_.CloseInput();
    process_.Wait();
  }

  // Commands are those of track_peer.cpp; each is answered by one line.
  std::string Ask(const std::string& command) { return Tell(command), Answer(); }
  void Tell(const std::string& command) { process_.Send(command + "\n"); }
  std::string Answer() {
    const auto answered = [this] {
      return process_.output().find('\n', taken_) != std::string::npos;
    };
    constexpr std::chrono::milliseconds kNow{0};
    WaitUntil([&] { return answered() || process_.Wait(kNow) != ChildProcess::kStillRuns; },
              3 * kPatience);
    if (!answered()) return "no answer; " + process_.error();
    const std::size_t end = process_.output().find('\n', taken_);
    const std::string line = process_.output().substr(taken_, end - taken_);
    taken_ = end + 1;
    return line;
  }

  bool Asleep(long call = kWaitForOthers) const { return IsAsleep(pid(), call); }
  void Kill() { process_.Kill(); }  // at once, and waits until it is gone
  pid_t pid() const { return process_.pid(); }
  const std::string& output() { return process_.output(); }

 private:
  ChildProcess process_;
  std::size_t taken_ = 0;
};

}  // namespace kinetrel::test

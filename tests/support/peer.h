// Another process that uses the same named objects, told what to do line by line.
#pragma once

#include <string>

#include "tests/support/child_process.h"
#include "tests/support/peer_world.h"

namespace kinetrel::test {

class Peer {
 public:
  Peer() : process_("track_peer", {}) {}
  ~Peer();  // lets it finish, so that it leaves nothing in the system

  // Commands are those of track_peer.cpp; each is answered by one line.
  std::string Ask(const std::string& command);
  void Tell(const std::string& command);
  std::string Answer();

  bool Asleep(long call = kWaitForOthers) const { return IsAsleep(pid(), call); }
  void Kill() { process_.Kill(); }  // at once, and waits until it is gone
  pid_t pid() const { return process_.pid(); }
  const std::string& output() { return process_.output(); }

 private:
  ChildProcess process_;
  std::size_t taken_ = 0;
};

}  // namespace kinetrel::test

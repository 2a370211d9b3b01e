// Another process that uses the same named objects, told what to do line by line.
#pragma once

#include <string>

#include "tests/support/child_process.h"
#include "tests/support/peer_world.h"

namespace kinetrel::test {

// A name in the system that no other run of any test has.
std::string UniqueName(const std::string& word);

class Peer {
 public:
  Peer() : process_("track_peer", {}) {}
  ~Peer();  // lets it finish, so that it leaves nothing in the system

  // Commands are those of track_peer.cpp; each is answered by one line.
  std::string Ask(const std::string& command);
  void Tell(const std::string& command);
  std::string Answer();

  // Whether it waits for another process, or is in that system call of Linux. A system that does
  // not tell answers after a while that it does.
  bool Asleep(long call = kWaitForOthers) const;
  void Kill();  // at once, and waits until it is gone
  pid_t pid() const { return process_.pid(); }
  const std::string& output() { return process_.output(); }

  static constexpr long kWaitForOthers = -1;

 private:
  ChildProcess process_;
  std::size_t taken_ = 0;
};

}  // namespace kinetrel::test

// Another process that uses the same named objects, told what to do line by line.
#pragma once

#include <sys/syscall.h>

#include <string>

#include "tests/support/child_process.h"

namespace kinetrel::test {

// A name in the system that no other run of any test has.
std::string UniqueName(const std::string& word);

// Whether the system's shared memory holds an object of that name.
bool InSystem(const std::string& name);

class Peer {
 public:
  Peer() : process_("track_peer", {}) {}
  ~Peer();  // lets it finish, so that it leaves nothing in the system

  // Commands are those of track_peer.cpp; each is answered by one line.
  std::string Ask(const std::string& command);
  void Tell(const std::string& command);
  std::string Answer();

  // Whether it is in that system call, as far as the system tells.
  bool Asleep(long call = SYS_futex) const;
  void Kill();  // at once, and waits until it is gone
  pid_t pid() const { return process_.pid(); }
  const std::string& output() { return process_.output(); }

 private:
  ChildProcess process_;
  std::size_t taken_ = 0;
};

}  // namespace kinetrel::test

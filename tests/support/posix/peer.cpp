#include "tests/support/peer.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>

namespace kinetrel::test {

std::string UniqueName(const std::string& word) {
  return "kinetrel-test-" + std::to_string(::getpid()) + "-" + word;
}

bool Peer::Asleep(long call) const {
  std::ifstream file("/proc/" + std::to_string(pid()) + "/syscall");
  std::string now;
  const long wanted = call == kWaitForOthers ? SYS_futex : call;
  return !(file >> now) || now == std::to_string(wanted);
}

}  // namespace kinetrel::test

#include "tests/support/peer.h"

#include <windows.h>

namespace kinetrel::test {

std::string UniqueName(const std::string& word) {
  return "kinetrel-test-" + std::to_string(::GetCurrentProcessId()) + "-" + word;
}

// The system does not tell. Who is asked about has had the time to begin its wait; if it has not,
// the test sees less, and nothing wrong.
bool Peer::Asleep(long) const {
  ::Sleep(100);
  return true;
}

}  // namespace kinetrel::test

#include "tests/support/peer_world.h"

#include <windows.h>

namespace kinetrel::test {

std::string UniqueName(const std::string& word) {
  return "kinetrel-test-" + std::to_string(::GetCurrentProcessId()) + "-" + word;
}

// The process has had the time to begin its wait. If it has not, the test sees less, and nothing
// wrong.
bool IsAsleep(pid_t, long) {
  ::Sleep(100);
  return true;
}

bool InSystem(const std::string& name) {
  const HANDLE found[] = {::OpenFileMappingA(FILE_MAP_READ, FALSE, name.c_str()),
                          ::OpenMutexA(SYNCHRONIZE, FALSE, name.c_str()),
                          ::OpenEventA(SYNCHRONIZE, FALSE, name.c_str())};
  bool any = false;
  for (const HANDLE handle : found) {
    any = any || handle != nullptr;
    if (handle != nullptr) ::CloseHandle(handle);
  }
  return any;
}

// With the code by which ChildProcess knows a program that was killed.
void DieAtOnce() {
  ::TerminateProcess(::GetCurrentProcess(), 0xDEAD);
  ::Sleep(INFINITE);
  __builtin_unreachable();
}

bool BecomeAccount(unsigned) { return false; }
bool SetFileMask(unsigned) { return false; }
bool ShrinkSharedMemory(std::size_t) { return false; }
std::size_t CountObjects() { return 0; }

}  // namespace kinetrel::test

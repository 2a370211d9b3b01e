#include "tests/support/free_slot.h"

#include <windows.h>

#include "tests/support/peer_world.h"

namespace kinetrel::test {
namespace {

// Kept in the object as a number, as a file's is.
HANDLE& HandleIn(std::intptr_t& lock) { return reinterpret_cast<HANDLE&>(lock); }

}  // namespace

bool FreeSlot::IsUsed(const std::string& block) { return InSystem(block); }

void FreeSlot::RemoveAbandonedStream(int) {}  // the system removes it with its last user

// The process that makes the mutex has the slot.
bool FreeSlot::Lock(const std::string& name) {
  HandleIn(lock_) = ::CreateMutexA(nullptr, FALSE, name.c_str());
  return HandleIn(lock_) != nullptr && ::GetLastError() != ERROR_ALREADY_EXISTS;
}

void FreeSlot::Unlock() {
  if (lock_ != -1 && lock_ != 0) ::CloseHandle(HandleIn(lock_));
  lock_ = -1;
}

}  // namespace kinetrel::test

#include "tests/support/free_slot.h"

#include <windows.h>

#include <stdexcept>
#include <string>

#include "tests/support/peer_world.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

constexpr int kDevices = 16;
constexpr int kBins = 16;

char Digit(int value) { return "0123456789ABCDEF"[value]; }

bool IsUsed(int device) {
  for (int bin = 0; bin < kBins; ++bin) {
    if (InSystem(std::string("KinetrelShMem") + Digit(device) + Digit(bin))) return true;
  }
  return false;
}

// The process that makes the mutex has the slot. Kept in the object as a number, as a file's is.
HANDLE& HandleIn(std::intptr_t& lock) { return reinterpret_cast<HANDLE&>(lock); }

}  // namespace

FreeSlot::FreeSlot() {
  if (!WaitUntil([this] { return Take(); }, std::chrono::minutes(2))) {
    throw std::runtime_error("no free shared-memory slot");
  }
}

FreeSlot::~FreeSlot() { ::CloseHandle(HandleIn(lock_)); }

bool FreeSlot::Take() {
  for (int i = 0; i < kDevices; ++i) {
    device_ = static_cast<int>((::GetCurrentProcessId() / 4 + static_cast<DWORD>(i)) % kDevices);
    const std::string name = "kinetrel-test-slot-" + std::to_string(device_);
    const HANDLE lock = ::CreateMutexA(nullptr, FALSE, name.c_str());
    const bool ours = lock != nullptr && ::GetLastError() != ERROR_ALREADY_EXISTS;
    if (ours && !IsUsed(device_)) {
      HandleIn(lock_) = lock;
      return true;
    }
    if (lock != nullptr) ::CloseHandle(lock);
  }
  return false;
}

}  // namespace kinetrel::test

#include "platform/mutex.h"

#include <windows.h>

#include <atomic>

#include "platform/win32/os.h"

namespace kinetrel {

// The system has no mutex that lends a waiter's priority to its holder. It raises a thread that was
// ready for a few seconds and did not run; that has to suffice. A free mutex is taken and released
// without a system call.
struct PriorityMutex::Os {
  enum class State { Free, Held, Awaited };

  std::atomic<State> state{State::Free};
  Handle released{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};  // wakes one
};

PriorityMutex::PriorityMutex() : os_(std::make_unique<Os>()) {}
PriorityMutex::~PriorityMutex() = default;

void PriorityMutex::lock() { LockWithin(kForever); }

bool PriorityMutex::try_lock() {
  Os::State expected = Os::State::Free;
  return os_->state.compare_exchange_strong(expected, Os::State::Held);
}

bool PriorityMutex::LockWithin(Milliseconds timeout) {
  if (try_lock()) return true;
  const Deadline deadline(timeout);
  // From here on an unlock must wake a waiter. If we take the mutex now, ours may wake one in vain.
  while (os_->state.exchange(Os::State::Awaited) != Os::State::Free) {
    const Milliseconds left = deadline.Remaining();
    if (left.count() == 0) return false;
    WaitFor(os_->released.get(), left);
  }
  return true;
}

void PriorityMutex::unlock() {
  if (os_->state.exchange(Os::State::Free) == Os::State::Awaited) ::SetEvent(os_->released.get());
}

}  // namespace kinetrel

#include "platform/win32/handle.h"

#include <windows.h>

#include <algorithm>

namespace kinetrel {

Handle::~Handle() {
  if (handle_ != nullptr) ::CloseHandle(handle_);
}

unsigned long WaitStep(Milliseconds time) {
  constexpr Milliseconds::rep kLongest = 1'000'000'000;
  return static_cast<unsigned long>(std::clamp<Milliseconds::rep>(time.count(), 0, kLongest));
}

WaitEnd WaitFor(void* handle, Milliseconds timeout) {
  const Deadline deadline(timeout);
  for (Milliseconds left = timeout;; left = deadline.Remaining()) {
    switch (::WaitForSingleObject(handle, left == kForever ? INFINITE : WaitStep(left))) {
      case WAIT_OBJECT_0:
        return WaitEnd::Signalled;
      case WAIT_ABANDONED:
        return WaitEnd::Abandoned;
      case WAIT_TIMEOUT:
        // The system's tick may end a wait a little early.
        if (deadline.Passed()) return WaitEnd::TimedOut;
        break;
      default:
        return WaitEnd::Failed;
    }
  }
}

}  // namespace kinetrel

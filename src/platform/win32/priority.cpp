#include <windows.h>

#include "platform/thread.h"
#include "platform/win32/os.h"

namespace kinetrel {

Status RaiseToTimeCritical() {
  constexpr const char* kWhat = "raising the priority";
  const BOOL thread = ::SetThreadPriority(::GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);
  const Status raised = thread ? Status{} : StatusOfLastError(kWhat);
  const BOOL process = ::SetPriorityClass(::GetCurrentProcess(), HIGH_PRIORITY_CLASS);
  return raised.Ok() && !process ? StatusOfLastError(kWhat) : raised;
}

}  // namespace kinetrel

#include "platform/signals.h"

#include <windows.h>

#include <cstdint>

namespace kinetrel {
namespace {

// Where the handler stores the request's number, and when the first came (0: never). One of each
// per process, like the console. Written by CatchStopSignals, then by the system's handler thread.
constinit std::atomic<std::atomic<int>*> stopRequest{nullptr};
constinit std::atomic<std::int64_t> stopAskedAt{0};

// The first event has number 0, which means "none" in a request.
int NumberOf(DWORD event) { return static_cast<int>(event) + 1; }

// After these the system ends the process as soon as the handler returns, or a few seconds later.
bool IsLast(DWORD event) {
  return event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT;
}

// Runs on a thread of its own. False: the system takes its default action and ends the program.
BOOL WINAPI HandleStop(DWORD event) {
  const std::int64_t now = ClockTicks();
  std::int64_t first = 0;
  if (stopAskedAt.compare_exchange_strong(first, now)) {
    stopRequest.load()->store(NumberOf(event));
  } else if (now - first > kOneStopWish.count() * ClockTicksPerSecond() / 1000) {
    if (!IsLast(event)) return FALSE;
  }
  // The program ends meanwhile, and this thread with it.
  if (IsLast(event)) ::Sleep(INFINITE);
  return TRUE;
}

}  // namespace

void CatchStopSignals(std::atomic<int>& request) {
  stopRequest.store(&request);
  stopAskedAt.store(0);
  ::SetConsoleCtrlHandler(HandleStop, FALSE);  // so that it is not installed twice
  ::SetConsoleCtrlHandler(HandleStop, TRUE);
}

// ---- User signals --------------------------------------------------------------------------

// The system has no such signals.
struct UserSignals::Os {};

UserSignals::UserSignals() = default;
UserSignals::~UserSignals() = default;

std::optional<UserSignal> UserSignals::Take() { return std::nullopt; }

// ---- Broken pipes --------------------------------------------------------------------------

// A write to a broken pipe only fails here.
BrokenPipeGuard::BrokenPipeGuard() : active_(false) {}
BrokenPipeGuard::~BrokenPipeGuard() = default;

}  // namespace kinetrel

#include "platform/stop_signals.h"

#include <signal.h>

#include "platform/posix/terminal_mode.h"

namespace kinetrel {
namespace {

// Where a signal puts its number, and whether one has: one of each per process, as signals are.
// Written by CatchStopSignals, then by the handler only.
constinit std::atomic<std::atomic<int>*> stopRequest{nullptr};
constinit std::atomic<bool> stopAsked{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void HandleStop(int number) {
  if (stopAsked.exchange(true)) return EndBySignal(number);
  stopRequest.load()->store(number);
}

}  // namespace

void CatchStopSignals(std::atomic<int>& request) {
  stopRequest.store(&request);
  stopAsked.store(false);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) InstallHandler(number, HandleStop);
  InstallHandler(SIGPIPE, SIG_IGN);
}

}  // namespace kinetrel

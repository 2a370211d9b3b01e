#include "platform/signals.h"

#include <signal.h>

#include <cerrno>
#include <cstdint>

#include "platform/clock.h"
#include "platform/posix/terminal_mode.h"

namespace kinetrel {
namespace {

// Where the handler stores the signal's number, and when the first came (0: never). One of each per
// process, like signals. Written by CatchStopSignals, then by the handler only.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
constinit std::atomic<std::atomic<int>*> stopRequest{nullptr};
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
constinit std::atomic<std::int64_t> stopAskedAt{0};
static_assert(std::atomic<int>::is_always_lock_free &&
              std::atomic<std::int64_t>::is_always_lock_free);

// `timeout` and others signal a process and then its whole group, so one request arrives twice.
void HandleStop(int number) {
  const std::int64_t now = ClockTicks();
  std::int64_t first = 0;
  if (stopAskedAt.compare_exchange_strong(first, now)) {
    const int savedErrno = errno;
    stopRequest.load()->store(number);
    ReleaseHeldOutput();
    errno = savedErrno;
  } else if (now - first > kOneStopWish.count() * ClockTicksPerSecond() / 1000) {
    EndBySignal(number);
  }
}

sigset_t BrokenPipeSet() {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGPIPE);
  return set;
}

}  // namespace

void CatchStopSignals(std::atomic<int>& request) {
  stopRequest.store(&request);
  stopAskedAt.store(0);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) InstallHandler(number, HandleStop);
  InstallHandler(SIGPIPE, SIG_IGN);
}

// ---- User signals --------------------------------------------------------------------------

struct UserSignals::Os {
  sigset_t ours{};
  sigset_t found{};
};

UserSignals::UserSignals() : os_(std::make_unique<Os>()) {
  ::sigemptyset(&os_->ours);
  ::sigaddset(&os_->ours, SIGUSR1);
  ::sigaddset(&os_->ours, SIGUSR2);
  ::pthread_sigmask(SIG_BLOCK, &os_->ours, &os_->found);
}

// A signal that still waits would end the process as soon as it is unblocked.
UserSignals::~UserSignals() {
  while (Take()) {
  }
  ::pthread_sigmask(SIG_SETMASK, &os_->found, nullptr);
}

std::optional<UserSignal> UserSignals::Take() {
  const timespec atOnce{};
  const int number = ::sigtimedwait(&os_->ours, nullptr, &atOnce);
  if (number < 0) return std::nullopt;
  return number == SIGUSR1 ? UserSignal::First : UserSignal::Second;
}

// ---- Broken pipes --------------------------------------------------------------------------

BrokenPipeGuard::BrokenPipeGuard() : active_(false) {
  const sigset_t set = BrokenPipeSet();
  sigset_t before;
  if (::pthread_sigmask(SIG_BLOCK, &set, &before) != 0) return;
  active_ = ::sigismember(&before, SIGPIPE) == 0;
}

// Takes the signal that a write of ours may have left before it lets signals through again.
BrokenPipeGuard::~BrokenPipeGuard() {
  if (!active_) return;
  const sigset_t set = BrokenPipeSet();
  const timespec atOnce{};
  while (::sigtimedwait(&set, nullptr, &atOnce) < 0 && errno == EINTR) {
  }
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace kinetrel

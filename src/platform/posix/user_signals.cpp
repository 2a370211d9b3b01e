#include "platform/user_signals.h"

#include <signal.h>

namespace kinetrel {

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

// One that still waits would end the process as soon as it is let in.
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

}  // namespace kinetrel

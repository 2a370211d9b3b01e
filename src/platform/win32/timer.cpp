#include "platform/timer.h"

// The multimedia headers need the types of this one.
#include <windows.h>

#include <mmsystem.h>

#include <algorithm>
#include <limits>

#include "platform/win32/os.h"

namespace kinetrel {
namespace {

// The finest period of the system's timer, in ms; 0: unknown.
unsigned FinestPeriod() {
  TIMECAPS capabilities{};
  const bool told = ::timeGetDevCaps(&capabilities, sizeof capabilities) == MMSYSERR_NOERROR;
  return told ? capabilities.wPeriodMin : 0;
}

}  // namespace

TimerResolution::TimerResolution() : raised_(false) {
  const unsigned period = FinestPeriod();
  raised_ = period > 0 && ::timeBeginPeriod(period) == TIMERR_NOERROR;
}

TimerResolution::~TimerResolution() {
  if (raised_) ::timeEndPeriod(FinestPeriod());
}

void TimerResolution::Sleep(Milliseconds time) const { SleepFor(time); }

// ---- Periodic timer ------------------------------------------------------------------------

struct PeriodicTimer::Os {
  Handle timer{::CreateWaitableTimerA(nullptr, FALSE, nullptr)};
};

PeriodicTimer::PeriodicTimer() : os_(std::make_unique<Os>()) {}
PeriodicTimer::~PeriodicTimer() = default;
PeriodicTimer::PeriodicTimer(PeriodicTimer&&) noexcept = default;
PeriodicTimer& PeriodicTimer::operator=(PeriodicTimer&&) noexcept = default;

Status PeriodicTimer::Start(Milliseconds period) {
  constexpr const char* kWhat = "starting a periodic timer";
  constexpr Milliseconds::rep kLongest = std::numeric_limits<LONG>::max();
  if (!os_->timer) return {Error::NoSpace, 0, kWhat};
  const LARGE_INTEGER atOnce{};
  const auto step = static_cast<LONG>(std::clamp<Milliseconds::rep>(period.count(), 1, kLongest));
  const BOOL started = ::SetWaitableTimer(os_->timer.get(), &atOnce, step, nullptr, nullptr, FALSE);
  return started ? Status{} : StatusOfLastError(kWhat);
}

void PeriodicTimer::Stop() {
  ::CancelWaitableTimer(os_->timer.get());
  WaitFor(os_->timer.get(), Milliseconds(0));  // takes back a tick that has come
}

bool PeriodicTimer::Wait(Milliseconds timeout) const {
  return WaitFor(os_->timer.get(), timeout) == WaitEnd::Signalled;
}

}  // namespace kinetrel

#include "platform/timer.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "platform/posix/os.h"

namespace kinetrel {
namespace {

constexpr unsigned long kFinestSlack = 1;  // ns; 0 would ask for the thread's default

// The slack that the system may add to the thread's waits, in ns; negative where it has none.
int ThreadSlack() { return ::prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0); }

void SetThreadSlack(unsigned long nanoseconds) { ::prctl(PR_SET_TIMERSLACK, nanoseconds, 0, 0, 0); }

}  // namespace

TimerResolution::TimerResolution() : raised_(ThreadSlack() >= 0) {}

TimerResolution::~TimerResolution() = default;

void TimerResolution::Sleep(Milliseconds time) const {
  const int slack = ThreadSlack();
  if (slack > 0) SetThreadSlack(kFinestSlack);
  SleepFor(time);
  if (slack > 0) SetThreadSlack(static_cast<unsigned long>(slack));
}

// ---- Periodic timer ------------------------------------------------------------------------

struct PeriodicTimer::Os {
  int fd = -1;

  ~Os() {
    if (fd >= 0) ::close(fd);
  }
};

namespace {

timespec TimespecOf(Milliseconds time) {
  return {static_cast<time_t>(time.count() / 1000),
          static_cast<long>(time.count() % 1000 * 1'000'000)};
}

// False when no tick came by the deadline.
bool AwaitTick(int fd, const Deadline& deadline) {
  constexpr std::int64_t kLongestPoll = 1'000'000;  // ms
  pollfd watched{fd, POLLIN, 0};
  for (;;) {
    const std::int64_t left = deadline.Remaining().count();
    const int count = ::poll(&watched, 1, static_cast<int>(std::min(left, kLongestPoll)));
    if (count > 0) return true;
    if (count == 0 && left <= kLongestPoll) return false;
    if (count < 0 && errno != EINTR) return false;
  }
}

}  // namespace

PeriodicTimer::PeriodicTimer() : os_(std::make_unique<Os>()) {}
PeriodicTimer::~PeriodicTimer() = default;
PeriodicTimer::PeriodicTimer(PeriodicTimer&&) noexcept = default;
PeriodicTimer& PeriodicTimer::operator=(PeriodicTimer&&) noexcept = default;

Status PeriodicTimer::Start(Milliseconds period) {
  constexpr const char* kWhat = "starting a periodic timer";
  if (os_->fd < 0) os_->fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (os_->fd < 0) return StatusFromErrno(errno, kWhat);
  itimerspec ticks{};
  ticks.it_value.tv_nsec = 1;  // at once; 0 would mean never
  ticks.it_interval = TimespecOf(std::max(period, Milliseconds{1}));
  const int result = ::timerfd_settime(os_->fd, 0, &ticks, nullptr);
  return StatusFromErrno(result == 0 ? 0 : errno, kWhat);
}

void PeriodicTimer::Stop() {
  const itimerspec never{};
  if (os_->fd >= 0) ::timerfd_settime(os_->fd, 0, &never, nullptr);
}

bool PeriodicTimer::Wait(Milliseconds timeout) const {
  const Deadline deadline(timeout);
  std::uint64_t ticks = 0;
  // poll leaves a negative descriptor unwatched, so a timer never started waits its time out.
  while (AwaitTick(os_->fd, deadline)) {
    if (::read(os_->fd, &ticks, sizeof ticks) == sizeof ticks) return true;
    if (errno != EAGAIN && errno != EINTR) return false;  // EAGAIN: another waiter had it
  }
  return false;
}

}  // namespace kinetrel

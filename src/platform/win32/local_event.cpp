#include "platform/win32/local_event.h"

#include <windows.h>

#include "platform/win32/os.h"

namespace kinetrel {

struct LocalEvent::Os {
  SRWLOCK lock = SRWLOCK_INIT;
  CONDITION_VARIABLE changed = CONDITION_VARIABLE_INIT;
  bool set = false;
  std::uint32_t count = 0;
};

namespace {

class Guard {
 public:
  explicit Guard(SRWLOCK& lock) : lock_(lock) { ::AcquireSRWLockExclusive(&lock_); }
  ~Guard() { ::ReleaseSRWLockExclusive(&lock_); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 private:
  SRWLOCK& lock_;
};

}  // namespace

LocalEvent::LocalEvent() : os_(std::make_unique<Os>()) {}
LocalEvent::~LocalEvent() = default;

void LocalEvent::Set() {
  const Guard held(os_->lock);
  os_->set = true;
  ++os_->count;
  ::WakeAllConditionVariable(&os_->changed);
}

std::uint32_t LocalEvent::Reset() {
  const Guard held(os_->lock);
  os_->set = false;
  return os_->count;
}

bool LocalEvent::IsSet() const {
  const Guard held(os_->lock);
  return os_->set;
}

std::uint32_t LocalEvent::Count() const {
  const Guard held(os_->lock);
  return os_->count;
}

bool LocalEvent::WaitSince(std::uint32_t count, Milliseconds timeout) const {
  const Deadline deadline(timeout);
  const Guard held(os_->lock);
  while (!os_->set && os_->count == count) {
    const Milliseconds left = deadline.Remaining();
    if (left.count() == 0) return false;
    const DWORD step = left == kForever ? INFINITE : WaitStep(left);
    ::SleepConditionVariableSRW(&os_->changed, &os_->lock, step, 0);
  }
  return true;
}

}  // namespace kinetrel

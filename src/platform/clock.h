// The machine's monotonic high-resolution clock.
#pragma once

#include <chrono>
#include <cstdint>

namespace kinetrel {

using Milliseconds = std::chrono::milliseconds;

// As a time-out: none.
inline constexpr Milliseconds kForever = Milliseconds::max();

// Ticks since some fixed moment before the program started; never goes back. No system call where
// the system offers the clock without one.
std::int64_t ClockTicks();

// Constant while the system runs. 1,000,000,000 on Linux.
std::int64_t ClockTicksPerSecond();

// Sleeps at least `time`; a signal does not end it early. Returns at once for 0 and below.
void SleepFor(Milliseconds time);

// A moment to wait for, so that a wait made of several steps has one end.
class Deadline {
 public:
  explicit Deadline(Milliseconds fromNow);  // kForever never passes
  Milliseconds Remaining() const;           // rounded up; 0 once passed; kForever if never
  bool Passed() const { return Remaining().count() == 0; }

 private:
  std::int64_t end_;
};

}  // namespace kinetrel

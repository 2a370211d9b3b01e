// The machine's monotonic high-resolution clock.
#pragma once

#include <chrono>
#include <cstdint>

namespace kinetrel {

using Milliseconds = std::chrono::milliseconds;

// As a time-out: wait without end.
inline constexpr Milliseconds kForever = Milliseconds::max();

// Ticks since a fixed moment before the program started; never goes back. Costs no system call on
// systems whose clock can be read without one.
std::int64_t ClockTicks();

// Constant while the system runs. 1,000,000,000 on Linux.
std::int64_t ClockTicksPerSecond();

// Sleeps at least `time`; a signal does not end it early. Returns at once for 0 and below.
void SleepFor(Milliseconds time);

// A moment at which a wait ends, also one that consists of several steps.
class Deadline {
 public:
  explicit Deadline(Milliseconds fromNow);  // kForever never passes
  Milliseconds Remaining() const;           // rounded up; 0 once passed; kForever if never
  bool Passed() const { return Remaining().count() == 0; }

 private:
  std::int64_t end_;
};

}  // namespace kinetrel

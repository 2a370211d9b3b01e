#include "platform/clock.h"

#include <windows.h>

#include "platform/win32/os.h"

namespace kinetrel {
namespace {

std::int64_t AskFrequency() {
  LARGE_INTEGER frequency{};
  ::QueryPerformanceFrequency(&frequency);
  return frequency.QuadPart;
}

}  // namespace

std::int64_t ClockTicks() {
  LARGE_INTEGER now{};
  ::QueryPerformanceCounter(&now);
  return now.QuadPart;
}

std::int64_t ClockTicksPerSecond() {
  static const std::int64_t frequency = AskFrequency();
  return frequency;
}

void SleepFor(Milliseconds time) {
  if (time.count() <= 0) return;
  // Sleep counts the system's ticks and may end within the last one.
  const Deadline end(time);
  for (Milliseconds left = time; left.count() > 0; left = end.Remaining()) ::Sleep(WaitStep(left));
}

}  // namespace kinetrel

#include "devices/stream_backlog.h"

#include <algorithm>
#include <utility>

namespace kinetrel {
namespace {

// Returns the bytes dropped.
std::size_t Drain(SerialPort& port, RecordWindow& window) {
  constexpr int kRefillMs = 2;  // the system may hold more than the queue shows
  std::size_t dropped = window.size();
  window.Clear();
  for (const Deadline deadline(Milliseconds(100)); !deadline.Passed();) {
    if (!port.WaitForRX(kRefillMs, 1)) break;
    const std::size_t waiting = port.InputQueueLength();
    if (!window.Want(port, std::clamp<std::size_t>(waiting, 1, RecordWindow::kRoom))) break;
    dropped += window.size();
    window.Clear();
  }
  return dropped;
}

}  // namespace

// The thread did not run for more than half a second, or the device was silent as long.
bool StreamBacklog::WasAway() {
  const std::int64_t now = ClockTicks();
  const std::int64_t last = std::exchange(lastCall_, now);
  return last != 0 && now - last > ClockTicksPerSecond() / 2;
}

bool StreamBacklog::DropOld(SerialPort& port, RecordWindow& window, const Stream& stream,
                            StatusLog* log) {
  constexpr Milliseconds kBetweenLooks{250};
  constexpr int kWaitMs = 100;
  constexpr int kAfterSilence = 16;  // then at most records of 1/16 s wait
  // The process may be stopped during the wait too.
  if (window.size() == 0 && port.BytesInHand() == 0) port.WaitForRX(kWaitMs, 1);
  const bool away = WasAway();
  if (!away && !nextLook_.Passed()) return false;
  nextLook_ = Deadline(kBetweenLooks);
  const int parts = away ? kAfterSilence : 2;
  const std::size_t most =
      stream.recordSize * static_cast<std::size_t>(std::max(stream.recordsPerSecond / parts, 1));
  if (window.size() + port.InputQueueLength() <= most) return false;
  const auto dropped = static_cast<unsigned>(Drain(port, window) / stream.recordSize);
  if (log != nullptr) {
    Announce(*log, "\n\t", StatusCode::Counts,
             "%u records of %s waited for more than half a second and were dropped.", dropped,
             stream.device);
  }
  return true;
}

}  // namespace kinetrel

#include "devices/stream_backlog.h"

#include <algorithm>

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

bool StreamBacklog::DropOld(SerialPort& port, RecordWindow& window, const Stream& stream,
                            StatusLog* log) {
  constexpr Milliseconds kBetweenLooks{250};
  if (!nextLook_.Passed()) return false;
  nextLook_ = Deadline(kBetweenLooks);
  const std::size_t most =
      stream.recordSize * static_cast<std::size_t>(std::max(stream.recordsPerSecond, 2)) / 2;
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

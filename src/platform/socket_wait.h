// Waiting for sockets: the part of it that each system implements, and what is made of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/clock.h"
#include "platform/status.h"
#include "platform/stream_socket.h"

namespace kinetrel {

struct PolledSocket {
  std::intptr_t handle = kNoStream;  // kNoStream: skipped
  bool forRoom = false;              // to send; false: for something to receive
  bool isReady = false;              // set by the wait, also when the connection has ended
};

inline constexpr std::size_t kMostPolledSockets = kMostStreamWaits + 1;

// Waits until a socket is ready; may return earlier. Returns how many are ready. Looks at the first
// kMostPolledSockets only. (posix/stream_socket.cpp, win32/stream_socket.cpp)
Result<std::size_t> PollSockets(std::span<PolledSocket> sockets, Milliseconds atMost,
                                const char* what);

// Waits until one socket is ready, or the deadline: TimedOut. (stream_socket.cpp)
Status AwaitSocket(std::intptr_t handle, bool forRoom, const Deadline& deadline, const char* what);

}  // namespace kinetrel

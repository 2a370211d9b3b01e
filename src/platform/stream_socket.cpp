#include "platform/stream_socket.h"

#include <algorithm>
#include <utility>

#include "platform/socket_wait.h"

namespace kinetrel {

// An ended connection is ready too; the next transfer reports it.
Status AwaitSocket(std::intptr_t handle, bool forRoom, const Deadline& deadline, const char* what) {
  for (;;) {
    PolledSocket one{handle, forRoom};
    const Milliseconds left = deadline.Remaining();
    const Result<std::size_t> ready = PollSockets({&one, 1}, left, what);
    if (!ready.Ok()) return ready.status();
    if (one.isReady) return {};
    if (left.count() == 0) return {Error::TimedOut, 0, what};
  }
}

// ---- One connection --------------------------------------------------------------------------

StreamSocket& StreamSocket::operator=(StreamSocket&& other) noexcept {
  if (this != &other) {
    Close();
    handle_ = other.Release();
  }
  return *this;
}

std::intptr_t StreamSocket::Release() { return std::exchange(handle_, kNoStream); }

Status StreamSocket::Send(std::span<const std::byte> bytes, const Deadline& deadline) {
  for (;;) {
    const Result<std::size_t> sent = SendSome(bytes);
    if (!sent.Ok()) return sent.status();
    bytes = bytes.subspan(*sent);
    if (bytes.empty()) return {};
    const Status status = AwaitRoom(deadline);
    if (!status.Ok()) return status;
  }
}

Result<std::size_t> StreamSocket::Receive(std::span<std::byte> into, const Deadline& deadline) {
  for (;;) {
    const Status status = AwaitInput(deadline);
    if (!status.Ok()) return status;
    const Result<std::size_t> got = ReceiveSome(into);
    if (!got.Ok() || *got > 0) return got;
  }
}

Status StreamSocket::AwaitInput(const Deadline& deadline) const {
  return AwaitSocket(handle_, false, deadline, "receiving");
}

Status StreamSocket::AwaitRoom(const Deadline& deadline) const {
  return AwaitSocket(handle_, true, deadline, "sending");
}

bool StreamSocket::IsQuiet() const {
  PolledSocket one{handle_};
  const Result<std::size_t> ready = PollSockets({&one, 1}, Milliseconds(0), "receiving");
  return ready.Ok() && *ready == 0;
}

// ---- Several at once -------------------------------------------------------------------------

StreamListener::StreamListener(StreamListener&& other) noexcept
    : handle_(std::exchange(other.handle_, kNoStream)) {}

bool WaitForStreams(const StreamListener* listener, std::span<StreamWait> waits,
                    Milliseconds timeout) {
  std::array<PolledSocket, kMostPolledSockets> polled;
  const std::size_t count = std::min(waits.size(), kMostStreamWaits);
  for (std::size_t i = 0; i < count; ++i) polled[i] = {waits[i].socket->handle_, waits[i].forRoom};
  if (listener != nullptr) polled[count].handle = listener->handle_;
  const Result<std::size_t> ready =
      PollSockets(std::span(polled).first(count + 1), timeout, "waiting for connections");
  for (std::size_t i = 0; i < count; ++i) waits[i].ready = ready.Ok() && polled[i].isReady;
  return ready.Ok() && polled[count].isReady;
}

}  // namespace kinetrel

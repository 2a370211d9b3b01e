#include "platform/stream_socket.h"

#include <utility>

namespace kinetrel {

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

}  // namespace kinetrel

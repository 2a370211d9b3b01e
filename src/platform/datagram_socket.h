// One UDP socket.
//
// Errors   Denied: not permitted. Busy: another socket has the port. NoSpace: the system's limit.
//          NotFound: no such address, or no road to it. TimedOut: nothing is there to receive.
//          Else Failed, with the system's number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "platform/status.h"

namespace kinetrel {

// Never waits; one peer's refusal is no error for the others.
//
// Threads  one at a time.
// Memory   nothing is allocated.
class DatagramSocket {
 public:
  // Binds to all of the machine's IPv4 addresses.
  //
  // port  0: any that is free; see port().
  static Result<DatagramSocket> Open(std::uint16_t port);

  DatagramSocket(DatagramSocket&& other) noexcept
      : handle_(std::exchange(other.handle_, kNoHandle)) {}
  DatagramSocket& operator=(DatagramSocket&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~DatagramSocket();

  bool SetReceiveBuffer(int bytes);  // what the system may hold for us; false: not granted
  bool AllowBroadcast();

  // Receives one datagram; what is longer than `into` is cut. It may be empty.
  Result<std::size_t> Receive(std::span<std::byte> into);

  // Sends one datagram, or none of it.
  //
  // address  numeric; a broadcast one needs AllowBroadcast.
  Status Send(const char* address, std::uint16_t port, std::span<const std::byte> bytes);

  std::uint16_t port() const;

 private:
  static constexpr std::intptr_t kNoHandle = -1;

  explicit DatagramSocket(std::intptr_t handle) : handle_(handle) {}

  std::intptr_t handle_;
};

}  // namespace kinetrel

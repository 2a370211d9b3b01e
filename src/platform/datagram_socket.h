// One UDP socket.
//
// Errors   Denied: not permitted. Busy: another socket has the port. NoSpace: the system's limit.
//          NotFound: no such address, or no route to it. TimedOut: nothing to receive.
//          Otherwise Failed, with the system's number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "platform/status.h"

namespace kinetrel {

// Who can reach a port.
enum class Reach { Network, ThisMachine };

// Never waits. A peer that refuses a datagram does not disturb the traffic with others.
//
// Threads  one at a time.
// Memory   nothing is allocated.
class DatagramSocket {
 public:
  // Binds to all of the machine's IPv4 addresses, or to the one that only this machine reaches.
  //
  // port  0: any free one; see port().
  static Result<DatagramSocket> Open(std::uint16_t port, Reach reach = Reach::Network);

  DatagramSocket(DatagramSocket&& other) noexcept
      : handle_(std::exchange(other.handle_, kNoHandle)) {}
  DatagramSocket& operator=(DatagramSocket&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~DatagramSocket();

  bool SetReceiveBuffer(int bytes);  // how much the system holds for us; false: refused
  bool AllowBroadcast();

  // Receives one datagram, which may be empty. A longer one than `into` is cut.
  Result<std::size_t> Receive(std::span<std::byte> into);

  // Sends one datagram whole, or not at all.
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

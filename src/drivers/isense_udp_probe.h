// Looks whether somebody sends tracker data to a UDP port, before the library is given the port.
#pragma once

#include <cstddef>
#include <optional>

#include "platform/datagram_socket.h"

namespace kinetrel {

// Threads  one at a time.
// Memory   nothing is allocated.
class UdpProbe {
 public:
  static constexpr int kClosed = -1;

  // Listens on `port` of all local addresses. False, and closed: no port of that number, or the
  // system refuses it (another program listens there).
  bool Open(int port);

  // Takes what has come, and says how many bytes that was; an empty datagram ends it. Under a flood
  // it stops after 1 MiB.
  std::size_t Drain();

  void Close();

  bool IsOpen() const { return socket_.has_value(); }
  int port() const { return port_; }  // kClosed when closed

 private:
  std::optional<DatagramSocket> socket_;
  int port_ = kClosed;
};

}  // namespace kinetrel

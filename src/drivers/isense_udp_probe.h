// Watches a UDP port for tracker data, before the library opens the port.
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

  // Listens on `port` of all local addresses. Closed after a failure.
  //
  // Errors  Invalid: no such port number. Busy: another program uses the port. Or the system's.
  Status Open(int port);

  // Reads the datagrams that have arrived and returns their bytes in total. Stops at an empty
  // datagram and after 1 MiB.
  std::size_t Drain();

  void Close();

  bool IsOpen() const { return socket_.has_value(); }
  int port() const { return port_; }  // kClosed when closed

 private:
  std::optional<DatagramSocket> socket_;
  int port_ = kClosed;
};

}  // namespace kinetrel

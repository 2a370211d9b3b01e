// Sends datagrams that are ready together in as few steps as the system allows.
//
// On Linux one system call sends all. Neighbours of one length for one receiver go through the
// network's layers as one piece, which the system cuts into the datagrams again at its end: that
// takes a fifth of the time. Receivers see no difference.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kinetrel {

struct OutgoingDatagram {
  std::span<const std::byte> bytes;
  std::span<const std::byte> to;  // the receiver's address in the system's own form
};

// For one socket.
//
// Threads  one at a time.
// Memory   nothing is allocated.
class DatagramBurst {
 public:
  struct Outcome {
    std::size_t sent = 0;  // datagrams that the system took, the first ones
    int osCode = 0;        // why it refused the next one; 0: it took all
  };

  // Sends the datagrams in order, until the system refuses one. Never waits.
  //
  // socket  the system's handle of an open socket that does not block. It stays the caller's.
  Outcome Send(std::intptr_t socket, std::span<const OutgoingDatagram> datagrams);

 private:
  bool joins_ = true;  // false: the network's road to a receiver takes no joined datagrams
};

}  // namespace kinetrel

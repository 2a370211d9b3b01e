// The operator's markers while a recording runs: lines typed on standard input, and UDP packets.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/console.h"
#include "platform/datagram_socket.h"
#include "platform/status.h"

namespace kinetrel::record {

class Markers {
 public:
  explicit Markers(std::string endKey) : endKey_(std::move(endKey)) {}

  // Takes UDP packets too. Errors  Busy: another program has the port.
  Status Listen(std::uint16_t port, bool fromNetwork);

  // Replaces the content of `found` by the markers since the last call. Never waits.
  // Returns  false: the key that ends the recording was typed. It counts at the start of a line
  // only,
  //          so that it can be part of a marker.
  bool Take(std::vector<std::string>& found);

 private:
  std::string endKey_;
  KeySession keys_;
  std::string line_;
  std::optional<DatagramSocket> socket_;
};

}  // namespace kinetrel::record

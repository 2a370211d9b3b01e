// The bytes of a record that are in hand, between a serial port and a decoder.
//
// A driver wants as many bytes as its next step needs, looks at them, and drops what it is done
// with. What it does not drop it sees again: so a record that turns out to be cut costs only
// itself, and the head of the next one inside it is still found.
//
// Memory  fixed; nothing allocates.
#pragma once

#include <array>
#include <cstddef>
#include <span>

#include "devices/serial_port.h"

namespace kinetrel {

class RecordWindow {
 public:
  static constexpr std::size_t kRoom = 512;

  // Has `count` bytes (kRoom at the most) in hand, with one read of exactly those still missing:
  // what belongs to the next record stays in the port. False when fewer came within the port's
  // read time-outs; those that did come are in hand.
  bool Want(SerialPort& port, std::size_t count);

  std::span<const std::byte> bytes() const { return {room_.data() + begin_, end_ - begin_}; }
  std::size_t size() const { return end_ - begin_; }
  bool readFailed() const { return readFailed_; }  // the last read: refused by the line, not short

  void Drop(std::size_t count);  // from the front; all when there are fewer
  void Clear() { begin_ = end_ = 0; }

 private:
  std::array<std::byte, kRoom> room_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  bool readFailed_ = false;
};

}  // namespace kinetrel

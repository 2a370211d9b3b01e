// The bytes of the current record, between a serial port and a decoder.
//
// A driver asks for as many bytes as its next step needs, looks at them, and drops those it has
// used. Bytes that it does not drop stay in the window. So a damaged record costs only itself: the
// driver still finds the start of the next record inside it.
//
// Memory  fixed size; nothing allocates.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "devices/serial_port.h"

namespace kinetrel {

class RecordWindow {
 public:
  static constexpr std::size_t kRoom = 512;  // bytes

  // Fills the window up to `count` bytes (at most kRoom). Reads exactly the missing bytes, so the
  // next record stays in the port. False if fewer came within the port's read time-outs; the bytes
  // that did come are in the window.
  bool Want(SerialPort& port, std::size_t count) {
    readFailed_ = false;
    if (size() >= count) return true;
    if (count > kRoom) return false;
    if (begin_ + count > kRoom) MoveToFront();
    unsigned got = 0;
    readFailed_ = !port.ReadSome(room_.data() + end_, static_cast<unsigned>(count - size()), &got);
    end_ += got;
    return size() >= count;
  }

  std::span<const std::byte> bytes() const { return {room_.data() + begin_, end_ - begin_}; }
  std::size_t size() const { return end_ - begin_; }

  // The last read failed on the line itself. A read that came back short did not fail.
  bool readFailed() const { return readFailed_; }

  // Drops `count` bytes from the front; all of them if there are fewer.
  void Drop(std::size_t count) {
    begin_ += std::min(count, size());
    if (begin_ == end_) Clear();
  }
  void Clear() { begin_ = end_ = 0; }

 private:
  void MoveToFront() {
    std::copy(room_.data() + begin_, room_.data() + end_, room_.data());
    end_ -= begin_;
    begin_ = 0;
  }

  std::array<std::byte, kRoom> room_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  bool readFailed_ = false;
};

}  // namespace kinetrel

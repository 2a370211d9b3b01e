// A device on a line without a port, stepped by the test.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "emulate/stepped_device.h"
#include "emulate/wire_writer.h"

namespace kinetrel::test {

using namespace emulate;

using std::chrono::milliseconds;
using std::chrono::seconds;

class DeviceBench {
 public:
  struct Piece {
    Moment when;
    std::string bytes;
  };

  explicit DeviceBench(std::unique_ptr<EmulatedDevice> device, LineOptions options = {115200})
      : stepped_(std::move(device), std::move(options)) {}

  void Strike(FaultKind kind) { stepped_.Strike(now_, {kind}); }

  void Send(std::string_view bytes) { stepped_.Receive(now_, AsBytes(bytes)); }

  // What the device sends meanwhile, piece by piece.
  std::vector<Piece> Watch(Moment time) {
    const Moment end = now_ + time;
    std::vector<Piece> pieces;
    while (now_ < end) {
      now_ = std::min(stepped_.NextEvent(), end);
      std::vector<std::byte> bytes;
      stepped_.Advance(now_, bytes);
      if (bytes.empty()) continue;
      pieces.push_back(
          {now_, std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size())});
    }
    return pieces;
  }

  std::string Collect(Moment time) {
    std::string all;
    for (const Piece& piece : Watch(time)) all += piece.bytes;
    return all;
  }

  std::string Ask(std::string_view bytes, Moment time = milliseconds(200)) {
    Send(bytes);
    return Collect(time);
  }

 private:
  Moment now_{0};
  SteppedDevice stepped_;
};

}  // namespace kinetrel::test

// The far end of a tracker's line: an emulated device whose time the benchmark controls. A record
// leaves it in one piece, at the moment that the benchmark chooses.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "emulate/device_table.h"
#include "emulate/stepped_device.h"
#include "engine/tracker_engine.h"
#include "platform/pseudo_terminal.h"

namespace kinetrel::bench {

using namespace emulate;

// Whether what a device sends in one piece holds a pose for the first sensor.
using TellsPose = bool (*)(std::span<const std::byte> bytes);

class FarEnd {
 public:
  explicit FarEnd(const DeviceRow& row, const std::vector<const char*>& options = {});

  const std::string& path() const { return port_.path(); }

  // Lets the device's time run as it does, while its host boots it, until EndServing is called on
  // another thread.
  void Serve();
  void EndServing() { served_ = true; }

  // Lets the device's time run until it has a record with a pose, and holds that record back.
  // Earlier bytes are lost. Throws std::runtime_error if no record comes.
  void AwaitRecord(TellsPose tellsPose);
  void SendRecord();

  int sent() const { return sent_; }  // pieces, since it was booted

 private:
  void Listen();
  void Run(Moment until);
  bool Fetch();

  PseudoTerminal port_;
  SteppedDevice device_;
  std::vector<std::byte> out_;
  Moment now_{0};
  bool present_ = false;
  std::atomic<bool> served_ = false;
  int sent_ = 0;
};

// Boots a tracker at its far end, in this process; sampling is not started. Throws
// std::runtime_error when it does not open.
std::unique_ptr<TrackerEngine> OpenTracker(FarEnd& farEnd, int deviceType, bool streaming);

}  // namespace kinetrel::bench

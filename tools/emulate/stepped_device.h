// A device on its line, stepped through time by whoever holds the clock: the emulator, or a test.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "emulate/emulated_device.h"

namespace kinetrel::emulate {

class SteppedDevice {
 public:
  // Powers it on at moment 0. Every later call has a moment that is not before the last one's.
  SteppedDevice(std::unique_ptr<EmulatedDevice> device, LineOptions options);

  const EmulatedDevice& device() const { return *device_; }
  const DeviceLine& line() const { return line_; }

  void HostOpened(Moment now);

  // At another rate than the line's, bytes arrive as noise, both ways. 0: not known, and any fits.
  void SetHostBaud(Moment now, unsigned baud);

  void Receive(Moment now, std::span<const std::byte> bytes);

  Moment NextEvent() const;

  // Does all that is due by `now`, in the order of its times, and appends what has left the device.
  void Advance(Moment now, std::vector<std::byte>& out);

  void Strike(Moment now, const Fault& fault);
  void StrikeAll(Moment now, FaultTrigger asked);  // those of the rules that wait for this

  // A fault that the port must suffer: Unplug.
  std::optional<Fault> TakePortFault();

 private:
  void Step(Moment next);
  void StrikeForeign(Moment now);
  bool RatesDiffer() const { return hostBaud_ != 0 && hostBaud_ != line_.baud(); }

  std::unique_ptr<EmulatedDevice> device_;
  DeviceLine line_;
  unsigned hostBaud_ = 0;
  std::optional<Fault> portFault_;
};

}  // namespace kinetrel::emulate

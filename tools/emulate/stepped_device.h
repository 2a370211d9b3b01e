// A device on its line. The owner of the clock steps it through time: the emulator, or a test.
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
  // Switches the device on at moment 0. Moments must not go back from call to call.
  SteppedDevice(std::unique_ptr<EmulatedDevice> device, LineOptions options);

  const EmulatedDevice& device() const { return *device_; }
  const DeviceLine& line() const { return line_; }

  void HostOpened(Moment now);

  // If the rate differs from the line's, bytes arrive as noise in both directions. 0: unknown,
  // fits.
  void SetHostBaud(Moment now, unsigned baud);

  void Receive(Moment now, std::span<const std::byte> bytes);

  void NewPoses(Moment now, std::uint32_t stations);  // of the live source; bits

  Moment NextEvent() const;

  // Does all that is due by `now`, in order of time, and appends the bytes that left the device.
  void Advance(Moment now, std::vector<std::byte>& out);

  void Strike(Moment now, const Fault& fault);
  void StrikeAll(Moment now, FaultTrigger asked);  // the faults of the rules with this trigger

  // A fault of the port: Unplug.
  std::optional<Fault> TakePortFault();

 private:
  void Step(Moment next);
  void StrikeForeign(Moment now);
  bool RatesDiffer() const { return hostBaud_ != 0 && !line_.Fits(hostBaud_); }

  std::unique_ptr<EmulatedDevice> device_;
  DeviceLine line_;
  unsigned hostBaud_ = 0;
  std::optional<Fault> portFault_;
};

}  // namespace kinetrel::emulate

// A device as its line sees it. One class per device, written from its side of the wire.
//
// It has no thread, no clock and no port. The caller passes bytes and the time, the device says
// when it wants its next event, and it sends over the line that the caller passes. So the same
// device runs on a real port and, step by step, in a test.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

#include "emulate/device_line.h"
#include "emulate/time_and_chance.h"

namespace kinetrel::emulate {

class EmulatedDevice {
 public:
  virtual ~EmulatedDevice() = default;

  virtual std::string Name() const = 0;  // for people, with the model

  // Power comes on. This is the first call. It comes again after a loss of power; the device then
  // forgets all that the host has set.
  virtual void PowerOn(Moment now, DeviceLine& line) = 0;

  // Bytes from the host, in any pieces and of any content.
  virtual void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) = 0;

  // When OnEvent is wanted next, or kNever. After an event, the next one is later.
  virtual Moment NextEvent() const = 0;
  virtual void OnEvent(Moment now, DeviceLine& line) = 0;

  // The live source of its motion has new poses of these stations; bit i is station i, from 0. A
  // device that does not stream them as they come takes them at its own pace.
  virtual void NewPoses(Moment, std::uint32_t /*stations*/, DeviceLine&) {}

  // A host opened the port. Most devices do not notice.
  virtual void HostOpened(Moment, DeviceLine&) {}

  // The host has set its end to another rate. A device that a modem line resets takes this as the
  // reset, because a pseudo-terminal has no modem lines.
  virtual void HostRateChanged(Moment, unsigned /*baud*/, DeviceLine&) {}

  // The device reports an error of its own; without a code it chooses one. False: it does not know
  // this error, or any.
  virtual bool RaiseError(Moment, std::optional<int> /*code*/) { return false; }
};

}  // namespace kinetrel::emulate

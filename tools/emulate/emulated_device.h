// A device as its line sees it. One class per device, written from its side of the wire.
//
// It has no thread, no clock and no port: it is told what comes and when, says when it next wants
// the word, and sends over the line that it is handed. So the same device runs on a real port and,
// step by step, in a test.
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

  // Power comes on: the first call of all. Comes again after a loss of power, and nothing that the
  // host has set is left then.
  virtual void PowerOn(Moment now, DeviceLine& line) = 0;

  // Bytes from the host, in any pieces and of any content.
  virtual void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) = 0;

  // When OnEvent is next wanted; kNever. What follows an event lies after it.
  virtual Moment NextEvent() const = 0;
  virtual void OnEvent(Moment now, DeviceLine& line) = 0;

  // A host opened the port. Most devices cannot know.
  virtual void HostOpened(Moment, DeviceLine&) {}

  // The host has set its end to another rate. A device whose reset hangs on a modem line takes it
  // from this, as a pseudo-terminal has no modem lines.
  virtual void HostRateChanged(Moment, unsigned /*baud*/, DeviceLine&) {}

  // An error that the device itself reports; without a code the device chooses. False: it knows no
  // errors, or not this one.
  virtual bool RaiseError(Moment, std::optional<int> /*code*/) { return false; }
};

}  // namespace kinetrel::emulate

// A real serial line of the machine as the port of a device that this program plays: the host is at
// the other end of a cable.
//
// When the line vanishes (a USB adapter is pulled out), the port is unplugged: call Plug until it
// succeeds. The line does not show whether a host is at its other end, or at what rate.
#pragma once

#include <memory>
#include <string>

#include "platform/device_port.h"
#include "platform/status.h"

namespace kinetrel {

// Opens the line for this program alone, at 8 data bits, no parity, one stop bit, without
// handshake.
//
// name    "COM<n>", or the system's own path of the device.
// Errors  as SerialLine::Open and Apply; SerialLine::ExplainOpenFailure words them.
Result<std::unique_ptr<DevicePort>> OpenSerialDevicePort(const std::string& name, unsigned baud);

}  // namespace kinetrel

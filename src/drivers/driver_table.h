// The table of all drivers: device type -> driver.
#pragma once

#include <memory>

#include "devices/device_factory.h"

namespace kinetrel {

// The drivers of this table, as programs and the C interface hand them to the engine.
DeviceFactory AllDrivers();

// Makes the driver of a device type (the -d numbers), closed and not booted; null for a type
// without a driver.
std::unique_ptr<TrackerDevice> MakeDevice(int deviceType);

// Makes the joystick of that number; null where the system has no joysticks.
std::unique_ptr<DAQControl> MakeJoystick(int joystickId);

}  // namespace kinetrel

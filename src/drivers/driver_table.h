// The table of all drivers: device type -> driver.
#pragma once

#include <memory>

#include "devices/device_factory.h"

namespace kinetrel {

// All drivers, in the form that programs and the C interface pass to the engine.
DeviceFactory AllDrivers();

// Makes the driver of a device type (the number of -d), closed and not booted. Null for a type
// without a driver.
std::unique_ptr<TrackerDevice> MakeDevice(int deviceType);

// Makes the joystick of that number; never null.
std::unique_ptr<DAQControl> MakeJoystick(int joystickId);

}  // namespace kinetrel

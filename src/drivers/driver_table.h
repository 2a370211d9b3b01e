// From device type to driver. The engine knows drivers only through this; drivers/ implements it.
#pragma once

#include <functional>
#include <memory>

#include "devices/daq_control.h"
#include "devices/tracker_device.h"

namespace kinetrel {

// Makes the driver of a device type (the -d numbers), closed and not booted; null for a type
// that has none.
std::unique_ptr<TrackerDevice> MakeDevice(int deviceType);

// Makes the joystick of that number; null where the system has no joysticks.
std::unique_ptr<DAQControl> MakeJoystick(int joystickId);

// What the engine takes in place of the two above, so that a test or a host hands it its own.
struct DeviceFactory {
  std::function<std::unique_ptr<TrackerDevice>(int deviceType)> device = MakeDevice;
  std::function<std::unique_ptr<DAQControl>(int joystickId)> joystick = MakeJoystick;
};

}  // namespace kinetrel

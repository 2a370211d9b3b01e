// How the engine gets its devices, so that it links no driver and a test can hand it its own.
#pragma once

#include <functional>
#include <memory>

#include "devices/daq_control.h"
#include "devices/tracker_device.h"

namespace kinetrel {

struct DeviceFactory {
  // Makes the driver of a device type (the -d numbers), closed and not booted; null for a type
  // without a driver.
  std::function<std::unique_ptr<TrackerDevice>(int deviceType)> device;

  // Makes the joystick of that number; null where the system has no joysticks.
  std::function<std::unique_ptr<DAQControl>(int joystickId)> joystick;
};

}  // namespace kinetrel

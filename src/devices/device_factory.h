// How the engine gets its devices: the program passes the factory in, so that the engine links no
// driver and a test can pass in devices of its own.
#pragma once

#include <functional>
#include <memory>

#include "devices/daq_control.h"
#include "devices/tracker_device.h"

namespace kinetrel {

struct DeviceFactory {
  // Makes the driver of a device type (a number of the -d option). Its port is closed. Null for a
  // type without a driver.
  std::function<std::unique_ptr<TrackerDevice>(int deviceType)> device;

  // Makes the joystick of that number (from 0); null on a system without joysticks.
  std::function<std::unique_ptr<DAQControl>(int joystickId)> joystick;
};

}  // namespace kinetrel

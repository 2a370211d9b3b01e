#include "devices/device_factory.h"

#include "devices/keyboard_device.h"
#include "drivers/flock_device.h"
#include "drivers/pan_tilt_device.h"

namespace kinetrel {
namespace {

template <typename Device>
std::unique_ptr<TrackerDevice> Make() {
  return std::make_unique<Device>();
}

struct DriverRow {
  int deviceType;
  std::unique_ptr<TrackerDevice> (*make)();
};
constexpr DriverRow kDrivers[] = {
    {1, Make<PanTiltDevice>},
    {3, Make<FlockDevice>},
    {8, Make<KeyboardDevice>},
};

}  // namespace

std::unique_ptr<TrackerDevice> MakeDevice(int deviceType) {
  for (const DriverRow& row : kDrivers) {
    if (row.deviceType == deviceType) return row.make();
  }
  return nullptr;
}

// No joystick is supported yet.
std::unique_ptr<DAQControl> MakeJoystick(int) { return nullptr; }

}  // namespace kinetrel

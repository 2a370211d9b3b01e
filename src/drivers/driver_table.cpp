#include "drivers/driver_table.h"

#include "devices/keyboard_device.h"
#include "drivers/fastrak_device.h"
#include "drivers/flock_device.h"
#include "drivers/gps_device.h"
#include "drivers/intertrax_device.h"
#include "drivers/isense_device.h"
#include "drivers/joystick.h"
#include "drivers/liberty_device.h"
#include "drivers/logitech_device.h"
#include "drivers/pan_tilt_device.h"
#include "drivers/relay_device.h"

namespace kinetrel {
namespace {

template <typename Device>
std::unique_ptr<TrackerDevice> Make() {
  return std::make_unique<Device>();
}

// Records without CR LF are two bytes shorter.
std::unique_ptr<TrackerDevice> MakeFastrak() {
  auto device = std::make_unique<FastrakDevice>();
  device->SetCrLf(0);
  return device;
}

struct DriverRow {
  int deviceType;
  std::unique_ptr<TrackerDevice> (*make)();
};
constexpr DriverRow kDrivers[] = {
    {1, Make<PanTiltDevice>},   {2, MakeFastrak},          {3, Make<FlockDevice>},
    {4, Make<LogitechDevice>},  {6, Make<IsenseDevice>},   {8, Make<KeyboardDevice>},
    {9, Make<IntertraxDevice>}, {10, Make<LibertyDevice>}, {11, Make<RelayDevice>},
    {12, Make<GpsDevice>},
};

}  // namespace

DeviceFactory AllDrivers() { return {.device = MakeDevice, .joystick = MakeJoystick}; }

std::unique_ptr<TrackerDevice> MakeDevice(int deviceType) {
  for (const DriverRow& row : kDrivers) {
    if (row.deviceType == deviceType) return row.make();
  }
  return nullptr;
}

std::unique_ptr<DAQControl> MakeJoystick(int joystickId) {
  return std::make_unique<Joystick>(joystickId);
}

}  // namespace kinetrel

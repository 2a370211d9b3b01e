#include "emulate/device_table.h"

#include "emulate/fastrak_emulator.h"
#include "emulate/flock_emulator.h"
#include "emulate/gps_emulator.h"
#include "emulate/intertrax_emulator.h"
#include "emulate/liberty_emulator.h"
#include "emulate/logitech_emulator.h"
#include "emulate/pan_tilt_emulator.h"

namespace kinetrel::emulate {
namespace {

// The high-speed Liberty and the newer FASTRAK.
const UsbIdentity kLibertyUsb = {
    0x0F44, 0xFF20, true, {{0x82, false}, {0x04, false}, {0x06, false}, {0x88, false}}, 0x88};
const UsbIdentity kFastrakUsb = {0x0F44, 0x0003, false, {{0x02, false}, {0x84, false}}, 0x84};

const DeviceRow kDevices[] = {
    {"fastrak", "magnetic trackers of the FASTRAK family, 1 to 4 stations", 2, 115200,
     FastrakOptions, &kFastrakUsb, MakeFastrak},
    {"flock", "Flock of Birds, or a single Bird, through its master", 3, 115200, FlockOptions,
     nullptr, MakeFlock},
    {"pan-tilt", "pan-tilt head with joint encoders", 1, 9600, PanTiltOptions, nullptr,
     MakePanTilt},
    {"logitech", "Logitech head tracker, one sensor with buttons", 4, 19200, LogitechOptions,
     nullptr, MakeLogitech},
    {"intertrax", "InterTrax, angles only", 9, 1200, IntertraxOptions, nullptr, MakeIntertrax},
    {"liberty", "Polhemus Liberty, up to 16 stations, through libpdi or on USB", 10, 115200,
     LibertyOptions, &kLibertyUsb, MakeLiberty},
    {"gps", "GPS receiver in TSIP, with satellites", 12, 9600, GpsOptions, nullptr, MakeGps},
};

}  // namespace

std::span<const DeviceRow> Devices() { return kDevices; }

const DeviceRow* FindDevice(std::string_view name) {
  for (const DeviceRow& row : kDevices) {
    if (row.name == name) return &row;
  }
  return nullptr;
}

}  // namespace kinetrel::emulate

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

// The high-speed Liberty and Patriot, and the newer FASTRAK.
const UsbIdentity kLibertyUsb = {
    0x0F44, 0xFF20, true, {{0x82, false}, {0x04, false}, {0x06, false}, {0x88, false}}, 0x88};
const UsbIdentity kPatriotUsb = {
    0x0F44, 0xEF20, true, {{0x82, false}, {0x04, false}, {0x06, false}, {0x88, false}}, 0x88};
const UsbIdentity kFastrakUsb = {0x0F44, 0x0003, false, {{0x02, false}, {0x84, false}}, 0x84};

constexpr double kCentimetres = 100;
constexpr double kMetres = 1;  // of a GPS receiver

const DeviceRow kDevices[] = {
    {"fastrak", "magnetic trackers of the FASTRAK family, 1 to 4 stations", 2, "fastrak", true,
     115200, FastrakOptions, &kFastrakUsb, kCentimetres, MakeFastrak},
    {"flock", "Flock of Birds, or a single Bird, through its master", 3, "flock", true, 115200,
     FlockOptions, nullptr, kCentimetres, MakeFlock},
    {"pan-tilt", "pan-tilt head with joint encoders", 1, "pan-tilt", true, 9600, PanTiltOptions,
     nullptr, kCentimetres, MakePanTilt},
    {"logitech", "Logitech head tracker, one sensor with buttons", 4, "logitech", true, 19200,
     LogitechOptions, nullptr, kCentimetres, MakeLogitech},
    {"intertrax", "InterTrax, angles only", 9, "intertrax", true, 1200, IntertraxOptions, nullptr,
     kCentimetres, MakeIntertrax},
    {"liberty", "Polhemus Liberty, up to 16 stations, through libpdi or on USB", 10, "liberty",
     false, 115200, LibertyOptions, &kLibertyUsb, kCentimetres, MakeLiberty},
    {"patriot", "Polhemus Patriot on USB, 1 or 2 stations", 10, "liberty", false, 115200,
     LibertyOptions, &kPatriotUsb, kCentimetres, MakePatriot},
    {"gps", "GPS receiver in TSIP, with satellites", 12, "gps", true, 9600, GpsOptions, nullptr,
     kMetres, MakeGps},
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

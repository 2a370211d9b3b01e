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

constexpr DeviceRow kDevices[] = {
    {"fastrak", "magnetic trackers of the FASTRAK family, 1 to 4 stations", 2, 115200,
     FastrakOptions, MakeFastrak},
    {"flock", "Flock of Birds, or a single Bird, through its master", 3, 115200, FlockOptions,
     MakeFlock},
    {"pan-tilt", "pan-tilt head with joint encoders", 1, 9600, PanTiltOptions, MakePanTilt},
    {"logitech", "Logitech head tracker, one sensor with buttons", 4, 19200, LogitechOptions,
     MakeLogitech},
    {"intertrax", "InterTrax, angles only", 9, 1200, IntertraxOptions, MakeIntertrax},
    {"liberty", "Polhemus Liberty, up to 16 stations, through libpdi", 10, 115200, LibertyOptions,
     MakeLiberty},
    {"gps", "GPS receiver in TSIP, with satellites", 12, 9600, GpsOptions, MakeGps},
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

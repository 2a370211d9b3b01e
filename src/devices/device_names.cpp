#include "devices/device_names.h"

#include <array>
#include <cstddef>

namespace kinetrel {
namespace {

constexpr std::array<const char*, 31> kDeviceNames = {
    "No Device",
    "FSL BOOM",
    "IsoTRAK",
    "Ascension Bird",
    "Logitech",
    "3space Tracker",
    "Ascension Flock",
    "SpaceBall",
    "FasTRAK",
    "InsideTRAK",
    "IsoTRAK2",
    "Polhemus",
    "Ascension",
    "InterSense 600",
    "InterSense 300",
    "InterSense InterTrax",
    "OrvixTraject",
    "OrvixTraj Orbiter",
    "InterSense DLL",
    "InterSense InertiCube2",
    "Fakespace PanTiltHead",
    "Polhemus Liberty",
    "Mts Relay",
    "InterSense InertiCube3",
    "GPS TSIP",
    "Trimble Lassen SQ",
    "Trimble Lassen iQ",
    "GPS NMEA",
    "Unknown 2",
    "Unknown 1",
    "Unknown Last",
};

constexpr std::array<const char*, 11> kBootFailures = {
    "Commport not open",         "No response",          "Commport read failed",
    "Commport timed-out",        "Commport counted-out", "No STATUS",
    "No operating sensors",      "Unrecognized product", "Failed initialization",
    "Failed storage allocation", "Unknown failure",
};

}  // namespace

const char* DeviceNameText(DeviceName row) { return kDeviceNames[static_cast<std::size_t>(row)]; }

const char* BootFailureText(BootResult result) {
  if (result > 0 || result < kUnknownFailure) return nullptr;
  return kBootFailures[static_cast<std::size_t>(-result)];
}

}  // namespace kinetrel

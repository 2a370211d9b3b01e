// The device types by name, in the order of their numbers. The numbers are those of the option -d.
#pragma once

#include <algorithm>
#include <array>
#include <string_view>

namespace kinetrel {

struct DeviceTypeName {
  int type;
  std::string_view name;    // of the option --device and of kinetrel-emulate
  std::string_view models;  // for a person who looks for a tracker
};

inline constexpr std::array kDeviceTypeNames = {
    DeviceTypeName{1, "pan-tilt", "Fakespace pan-tilt head"},
    DeviceTypeName{2, "fastrak", "FasTRAK, InsideTRAK, IsoTRAK, IsoTRAK2, IS-300, IS-600"},
    DeviceTypeName{3, "flock", "Flock of Birds, or a single Bird"},
    DeviceTypeName{4, "logitech", "Logitech head tracker"},
    DeviceTypeName{6, "isense", "InterSense trackers through the vendor's library"},
    DeviceTypeName{8, "simulated", "32 sensors without any hardware"},
    DeviceTypeName{9, "intertrax", "InterTrax on a serial line"},
    DeviceTypeName{10, "liberty", "Liberty, Patriot"},
    DeviceTypeName{11, "relay", "a tracker on another machine"},
    DeviceTypeName{12, "gps", "GPS receiver in TSIP"},
};

// Null if no device type has the number, or the name.
constexpr const DeviceTypeName* FindDeviceType(int type) {
  const auto* const row = std::ranges::find(kDeviceTypeNames, type, &DeviceTypeName::type);
  return row == kDeviceTypeNames.end() ? nullptr : row;
}
constexpr const DeviceTypeName* FindDeviceType(std::string_view name) {
  const auto* const row = std::ranges::find(kDeviceTypeNames, name, &DeviceTypeName::name);
  return row == kDeviceTypeNames.end() ? nullptr : row;
}

}  // namespace kinetrel

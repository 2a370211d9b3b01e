// What a run starts with: set by the command line and the control interface, pushed to the device
// when it is opened.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devices/serial_port.h"
#include "filters/filter_option.h"

namespace kinetrel {

// What one sensor has of its own, beside what all sensors have.
struct SensorSettings {
  int sensor = 0;         // from 0
  std::string name = {};  // as the record stream tells it; empty: "Sensor N"
  std::optional<std::array<float, 3>> hemisphere = {};  // zenith
  std::optional<std::array<float, 6>> alignment = {};   // X axis, Y axis
};

// Where a sensor is published within the slot.
struct ConfiguredMapping {
  int sensor = 0;    // from 0
  int bin = 0;       // 0..15
  int poseSlot = 0;  // 0..31
};

struct StartConfig {
  // In the place of an alignment axis: none was given.
  static constexpr float kNotAligned = 99.0F;
  static constexpr int kUsbPort = kUsbPortNumber;
  static constexpr int kNamedPort = kUsbPort + 16;  // its slot is 1, as that of USB
  static constexpr int kShmFromPort = -1;
  static constexpr int kBaud = 115200;  // a driver that needs another sets it itself

  int shmDevice = kShmFromPort;  // 0..15, or derived from the port
  int deviceType = 2;            // see device_types.h
  int port = 1;                  // n of COMn, kUsbPort or kNamedPort
  // "usb:1-2.3", the unit meant by kUsbPort; empty: the only one. With kNamedPort a path.
  std::string portName = {};
  int joystickPort = 0;        // 0 off
  unsigned sensorMask = 1;     // bit i = sensor i
  unsigned componentMask = 3;  // bit 0 position, 1 Euler angles, 2 quaternion
  int units = 1;               // 0 inch, 1 centimetre, 3 metre; 2 for the GPS family
  int sync = 0;                // 0 internal, 1 external, 2 CRT
  int rollAll = 0;             // 1: every sensor is turned by -pi about its own axis
  int bore = 0;
  int streaming = 1;  // 1 the device sends by itself, 0 it is polled
  int query = 0;      // 1: its status is reported after boot
  // Origin x, y, z in the configured unit, then azimuth, elevation, roll in radians.
  std::array<float, 6> transmitterOffset{};
  std::array<float, 3> hemisphere = {1.0F, 0.0F, 0.0F};  // zenith of the operating hemisphere
  std::array<float, 3> alignX = {kNotAligned, 0.0F, 0.0F};
  std::array<float, 3> alignY = {0.0F, kNotAligned, 0.0F};

  std::vector<SensorSettings> sensors;      // at most one of each sensor
  std::vector<ConfiguredMapping> mappings;  // the default mappings; empty: sensor i to pose slot i
  std::vector<FilterOption> filters;        // of every default mapping, in the order of their use

  std::string captureFile;     // what passes over the line goes into it too; empty: none
  std::string captureOptions;  // in force, as a configuration file has them; for the capture

  // The name by which the port is opened; empty: it is opened by its number.
  std::string_view PortName() const {
    const bool named = port == kUsbPort || port == kNamedPort;
    return named ? std::string_view(portName) : std::string_view();
  }

  bool Aligned() const { return alignX[0] != kNotAligned || alignY[1] != kNotAligned; }
};

}  // namespace kinetrel

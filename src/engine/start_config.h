// What a run starts with: set by the command line and the control interface, pushed to the device
// when it is opened.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "devices/serial_port.h"
#include "filters/filter_spec.h"

namespace kinetrel {

struct StartConfig {
  // In the place of an alignment axis: none was given.
  static constexpr float kNotAligned = 99.0F;
  static constexpr int kUsbPort = kUsbPortNumber;
  static constexpr int kShmFromPort = -1;
  static constexpr int kBaud = 115200;  // a driver that needs another sets it itself

  int shmDevice = kShmFromPort;  // 0..15, or derived from the port
  int deviceType = 2;            // see device_factory.h
  int port = 1;                  // n of COMn, or kUsbPort
  std::string usbUnit = {};      // "usb:1-2.3", the unit meant by kUsbPort; empty: the only one
  int joystickPort = 0;          // 0 off
  unsigned sensorMask = 1;       // bit i = sensor i
  unsigned componentMask = 3;    // bit 0 position, 1 Euler angles, 2 quaternion
  int units = 1;                 // 0 inch, 1 centimetre, 3 metre; 2 for the GPS family
  int sync = 0;                  // 0 internal, 1 external, 2 CRT
  int rollAll = 0;               // 1: every sensor is turned by -pi about its own axis
  int bore = 0;
  int streaming = 1;  // 1 the device sends by itself, 0 it is polled
  int query = 0;      // 1: its status is reported after boot
  // Origin x, y, z in the configured unit, then azimuth, elevation, roll in radians.
  std::array<float, 6> transmitterOffset{};
  std::array<float, 3> hemisphere = {1.0F, 0.0F, 0.0F};  // zenith of the operating hemisphere
  std::array<float, 3> alignX = {kNotAligned, 0.0F, 0.0F};
  std::array<float, 3> alignY = {0.0F, kNotAligned, 0.0F};

  std::vector<FilterSpec> filters;  // of every default mapping, in the order of their use

  bool Aligned() const { return alignX[0] != kNotAligned || alignY[1] != kNotAligned; }
};

}  // namespace kinetrel

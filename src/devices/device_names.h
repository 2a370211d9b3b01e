// The names that devices report, and the results of a boot.
#pragma once

namespace kinetrel {

// Rows of the device-name table; the number is also the type code of most drivers.
enum class DeviceName : int {
  NoDevice = 0,
  Boom = 1,
  Isotrak = 2,
  AscensionBird = 3,
  Logitech = 4,
  ThreeSpace = 5,
  AscensionFlock = 6,
  SpaceBall = 7,
  Fastrak = 8,
  Insidetrak = 9,
  Isotrak2 = 10,
  Polhemus = 11,
  Ascension = 12,
  InterSense600 = 13,
  InterSense300 = 14,
  InterSenseIntertrax = 15,
  SimulatedTrajectory = 16,
  SimulatedOrbiter = 17,
  InterSenseLibrary = 18,
  InertiaCube2 = 19,
  PanTiltHead = 20,
  PolhemusLiberty = 21,
  Relay = 22,
  InertiaCube3 = 23,
  GpsTsip = 24,
  TrimbleLassenSq = 25,
  TrimbleLassenIq = 26,
  GpsNmea = 27,
  Unknown2 = 28,
  Unknown1 = 29,
  UnknownLast = 30,
};

// The row's text, a constant: devices keep the pointer.
const char* DeviceNameText(DeviceName row);

// 1 or more: booted. 0 and below name the failure.
using BootResult = int;
inline constexpr BootResult kBooted = 1;
inline constexpr BootResult kPortNotOpen = 0;
inline constexpr BootResult kNoResponse = -1;
inline constexpr BootResult kReadFailed = -2;
inline constexpr BootResult kTimedOut = -3;
inline constexpr BootResult kCountedOut = -4;
inline constexpr BootResult kNoStatus = -5;
inline constexpr BootResult kNoSensors = -6;
inline constexpr BootResult kUnrecognizedProduct = -7;
inline constexpr BootResult kInitializationFailed = -8;
inline constexpr BootResult kStorageFailed = -9;
inline constexpr BootResult kUnknownFailure = -10;

// The text of a failure; null for a success and for an unknown result.
const char* BootFailureText(BootResult result);

}  // namespace kinetrel

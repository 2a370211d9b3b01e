// The published data of one bin, byte for byte as every client sees it, and its getters.
//
// A block is addressed by a device number 0..15 (the shared-memory slot less one) and a bin 0..15.
// Little-endian; lengths in the device's unit, angles in radians. Whoever reads or writes it holds
// the bin's mutex, or works on a copy made under it. Its content comes from another process: the
// getters below trust none of it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kinetrel {

inline constexpr int kSharedDevices = 16;
inline constexpr int kSharedBins = 16;
inline constexpr int kPoseSlots = 32;

struct SharedTrackBlock {
  std::int32_t reserved;  // -1 once initialised
  std::uint32_t flags;    // see TrackFlags
  std::uint32_t buttons;  // bit i = button i; counts only while the flag says so
  std::array<std::array<float, 6>, kPoseSlots> poses;        // x y z azimuth elevation roll
  std::array<std::array<float, 4>, kPoseSlots> quaternions;  // scalar first
  std::uint32_t padding0;
  double sampleTime;                 // seconds; when the device took the sample
  double publishTime;                // seconds from the writer's start; when it was published
  std::int32_t frameCount;           // one more at each publication
  std::uint8_t writerPresent;        // 1 while a writer has the block open
  std::array<char, 128> deviceName;  // ends with a 0 when shorter than the field
  std::array<char, 3> padding1;      // the first may hold the 0 of a name of full length
  double frameRate;                  // Hz of the device
  std::uint32_t sensorMask;          // bit i = sensor i
  std::uint32_t padding2;
};

static_assert(sizeof(SharedTrackBlock) == 1464);
static_assert(offsetof(SharedTrackBlock, flags) == 4);
static_assert(offsetof(SharedTrackBlock, buttons) == 8);
static_assert(offsetof(SharedTrackBlock, poses) == 12);
static_assert(offsetof(SharedTrackBlock, quaternions) == 780);
static_assert(offsetof(SharedTrackBlock, sampleTime) == 1296);
static_assert(offsetof(SharedTrackBlock, publishTime) == 1304);
static_assert(offsetof(SharedTrackBlock, frameCount) == 1312);
static_assert(offsetof(SharedTrackBlock, writerPresent) == 1316);
static_assert(offsetof(SharedTrackBlock, deviceName) == 1317);
static_assert(offsetof(SharedTrackBlock, frameRate) == 1448);
static_assert(offsetof(SharedTrackBlock, sensorMask) == 1456);

// The flags word: bits 0-3 the low bits of the sensor mask, 4-7 the components, 8-11 the unit,
// 12 whether the buttons count.
struct TrackFlags {
  static constexpr std::uint32_t kLowSensors = 0xF;
  static constexpr int kComponentShift = 4;
  static constexpr int kUnitsShift = 8;
  static constexpr std::uint32_t kPosition = 1U << 4;
  static constexpr std::uint32_t kEuler = 1U << 5;
  static constexpr std::uint32_t kQuaternion = 1U << 6;
  static constexpr std::uint32_t kButtonsValid = 1U << 12;
};

// A block as it is before the first publication.
void InitializeBlock(SharedTrackBlock& block, bool writerPresent);

// New memory is all zero, and not initialised. May be asked without the mutex.
bool IsInitialized(SharedTrackBlock& block);

// Names the device; a name past 128 characters is cut.
void SetDeviceName(SharedTrackBlock& block, const char* name);

std::uint32_t SensorMaskOf(const SharedTrackBlock& block);  // the full mask, merged with the flags
int SensorCountOf(const SharedTrackBlock& block);
std::uint32_t ComponentMaskOf(
    const SharedTrackBlock& block);          // bit 0 position, 1 Euler, 2 quaternion
int UnitsOf(const SharedTrackBlock& block);  // 0 inch, 1 centimetre, 3 metre, 2 GPS
bool ButtonsValid(const SharedTrackBlock& block);
std::string DeviceNameOf(const SharedTrackBlock& block);

// Components of slot i. False, with zeros (the quaternion 1,0,0,0), for a slot outside 0..31 or a
// component that is not published.
bool PositionOf(const SharedTrackBlock& block, int slot, float xyz[3]);
bool EulerOf(const SharedTrackBlock& block, int slot, float angles[3]);
bool QuaternionOf(const SharedTrackBlock& block, int slot, float wxyz[4]);
bool PoseOf(const SharedTrackBlock& block, int slot,
            float pose[6]);  // false when either half is absent

// The names of a bin's three objects.
std::string BlockName(int device, int bin);
std::string MutexName(int device, int bin);
std::string EventName(int device, int bin);

}  // namespace kinetrel

// The published data of one bin, and the getters of its fields.
//
// A block is addressed by a device number 0..15 (the shared-memory slot less one) and a bin 0..15.
// The process that reads or writes it holds the bin's mutex, or works on a copy made under it.
// The content comes from another process, so the getters check all of it.
#pragma once

#include <cstdint>
#include <string>

#include "kinetrel/track_block.h"

namespace kinetrel {

inline constexpr int kSharedDevices = kinetrel_slots;
inline constexpr int kSharedBins = kinetrel_bins;
inline constexpr int kPoseSlots = kinetrel_pose_slots;

// The layout that every client knows.
using SharedTrackBlock = kinetrel_track_block;

// The flags word: bits 0-3 the low bits of the sensor mask, 4-7 the components, 8-11 the unit,
// 12 whether the buttons count.
struct TrackFlags {
  static constexpr std::uint32_t kLowSensors = kinetrel_low_sensors_flags;
  static constexpr int kComponentShift = kinetrel_component_shift;
  static constexpr int kUnitsShift = kinetrel_unit_shift;
  static constexpr std::uint32_t kPosition = kinetrel_position_flag;
  static constexpr std::uint32_t kEuler = kinetrel_angles_flag;
  static constexpr std::uint32_t kQuaternion = kinetrel_quaternion_flag;
  static constexpr std::uint32_t kButtonsValid = kinetrel_buttons_valid_flag;
};

// Sets every field to its value before the first publication.
void InitializeBlock(SharedTrackBlock& block, bool writerPresent);

// False for new memory, which is all zero. May be called without the mutex.
bool IsInitialized(SharedTrackBlock& block);

// A name of more than 128 characters is cut.
void SetDeviceName(SharedTrackBlock& block, const char* name);

std::uint32_t SensorMaskOf(const SharedTrackBlock& block);  // the full mask, merged with the flags
int SensorCountOf(const SharedTrackBlock& block);
// bit 0 position, 1 Euler, 2 quaternion
std::uint32_t ComponentMaskOf(const SharedTrackBlock& block);
int UnitsOf(const SharedTrackBlock& block);  // a kinetrel_unit
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

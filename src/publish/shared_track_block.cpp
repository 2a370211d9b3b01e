#include "publish/shared_track_block.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>

namespace kinetrel {
namespace {

bool IsSlot(int slot) { return slot >= 0 && slot < kPoseSlots; }

// Copies one half of a pose, or zeros if it is not published.
bool CopyHalf(const SharedTrackBlock& block, int slot, std::uint32_t flag, std::size_t from,
              float* into) {
  const bool published = IsSlot(slot) && (block.flags & flag) != 0;
  for (std::size_t i = 0; i < 3; ++i) into[i] = published ? block.poses[slot][from + i] : 0.0F;
  return published;
}

using MakeName = void (*)(char name[kinetrel_object_name_size], unsigned device, unsigned bin);

std::string NameOf(MakeName make, int device, int bin) {
  char name[kinetrel_object_name_size];
  make(name, static_cast<unsigned>(device), static_cast<unsigned>(bin));
  return name;
}

}  // namespace

void InitializeBlock(SharedTrackBlock& block, bool writerPresent) {
  // Other processes read this field without the mutex. -1 is stored last: a process that is killed
  // in here leaves a block that counts as not initialised.
  const std::atomic_ref initialized(block.reserved);
  initialized.store(0);
  std::memset(&block.flags, 0, sizeof block - offsetof(SharedTrackBlock, flags));
  for (auto& quaternion : block.quaternions) quaternion[0] = 1.0F;
  block.writerPresent = writerPresent ? 1 : 0;
  initialized.store(-1);
}

bool IsInitialized(SharedTrackBlock& block) { return std::atomic_ref(block.reserved).load() == -1; }

void SetDeviceName(SharedTrackBlock& block, const char* name) {
  std::memset(block.deviceName, 0, sizeof block.deviceName);
  std::string_view(name).copy(block.deviceName, sizeof block.deviceName);
  block.padding1[0] = 0;
}

std::uint32_t SensorMaskOf(const SharedTrackBlock& block) {
  return block.sensorMask | (block.flags & TrackFlags::kLowSensors);
}

int SensorCountOf(const SharedTrackBlock& block) { return std::popcount(SensorMaskOf(block)); }

std::uint32_t ComponentMaskOf(const SharedTrackBlock& block) {
  return (block.flags >> TrackFlags::kComponentShift) & 0xF;
}

int UnitsOf(const SharedTrackBlock& block) {
  return static_cast<int>((block.flags >> TrackFlags::kUnitsShift) & 0xF);
}

bool ButtonsValid(const SharedTrackBlock& block) {
  return (block.flags & TrackFlags::kButtonsValid) != 0;
}

std::string DeviceNameOf(const SharedTrackBlock& block) {
  return {std::begin(block.deviceName),
          std::find(std::begin(block.deviceName), std::end(block.deviceName), '\0')};
}

bool PositionOf(const SharedTrackBlock& block, int slot, float xyz[3]) {
  return CopyHalf(block, slot, TrackFlags::kPosition, 0, xyz);
}

bool EulerOf(const SharedTrackBlock& block, int slot, float angles[3]) {
  return CopyHalf(block, slot, TrackFlags::kEuler, 3, angles);
}

bool QuaternionOf(const SharedTrackBlock& block, int slot, float wxyz[4]) {
  static constexpr float kIdentity[4] = {1.0F, 0.0F, 0.0F, 0.0F};
  const bool published = IsSlot(slot) && (block.flags & TrackFlags::kQuaternion) != 0;
  std::copy_n(published ? block.quaternions[slot] : kIdentity, 4, wxyz);
  return published;
}

bool PoseOf(const SharedTrackBlock& block, int slot, float pose[6]) {
  const bool position = PositionOf(block, slot, pose);
  const bool angles = EulerOf(block, slot, pose + 3);
  return position && angles;
}

std::string BlockName(int device, int bin) { return NameOf(kinetrel_block_name, device, bin); }

std::string MutexName(int device, int bin) { return NameOf(kinetrel_mutex_name, device, bin); }

std::string EventName(int device, int bin) { return NameOf(kinetrel_event_name, device, bin); }

}  // namespace kinetrel

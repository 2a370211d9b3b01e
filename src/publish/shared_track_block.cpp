#include "publish/shared_track_block.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <string_view>

namespace kinetrel {
namespace {

bool IsSlot(int slot) { return slot >= 0 && slot < kPoseSlots; }

// Copies one half of a pose, or zeros when it is not there.
bool CopyHalf(const SharedTrackBlock& block, int slot, std::uint32_t flag, std::size_t from,
              float* into) {
  const bool there = IsSlot(slot) && (block.flags & flag) != 0;
  for (std::size_t i = 0; i < 3; ++i) {
    into[i] = there ? block.poses[static_cast<std::size_t>(slot)][from + i] : 0.0F;
  }
  return there;
}

char Digit(int value) {
  return "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"[static_cast<std::size_t>(value)];
}

}  // namespace

void InitializeBlock(SharedTrackBlock& block, bool writerPresent) {
  // Looked at without the mutex; -1 comes last, so that nobody takes for initialised what a
  // process left that was killed in here.
  const std::atomic_ref initialized(block.reserved);
  initialized.store(0);
  block.flags = 0;
  block.buttons = 0;
  block.poses = {};
  block.quaternions.fill({1.0F, 0.0F, 0.0F, 0.0F});
  block.padding0 = 0;
  block.sampleTime = 0.0;
  block.publishTime = 0.0;
  block.frameCount = 0;
  block.writerPresent = writerPresent ? 1 : 0;
  block.deviceName = {};
  block.padding1 = {};
  block.frameRate = 0.0;
  block.sensorMask = 0;
  block.padding2 = 0;
  initialized.store(-1);
}

bool IsInitialized(SharedTrackBlock& block) { return std::atomic_ref(block.reserved).load() == -1; }

void SetDeviceName(SharedTrackBlock& block, const char* name) {
  const std::string_view text = name;
  block.deviceName.fill(0);
  text.copy(block.deviceName.data(), block.deviceName.size());
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
  const auto end = std::find(block.deviceName.begin(), block.deviceName.end(), '\0');
  return {block.deviceName.begin(), end};
}

bool PositionOf(const SharedTrackBlock& block, int slot, float xyz[3]) {
  return CopyHalf(block, slot, TrackFlags::kPosition, 0, xyz);
}

bool EulerOf(const SharedTrackBlock& block, int slot, float angles[3]) {
  return CopyHalf(block, slot, TrackFlags::kEuler, 3, angles);
}

bool QuaternionOf(const SharedTrackBlock& block, int slot, float wxyz[4]) {
  const bool there = IsSlot(slot) && (block.flags & TrackFlags::kQuaternion) != 0;
  const std::array<float, 4> identity = {1.0F, 0.0F, 0.0F, 0.0F};
  const auto& quaternion = there ? block.quaternions[static_cast<std::size_t>(slot)] : identity;
  std::copy(quaternion.begin(), quaternion.end(), wxyz);
  return there;
}

bool PoseOf(const SharedTrackBlock& block, int slot, float pose[6]) {
  const bool position = PositionOf(block, slot, pose);
  const bool angles = EulerOf(block, slot, pose + 3);
  return position && angles;
}

std::string BlockName(int device, int bin) {
  return std::string("KinetrelShMem") + Digit(device) + Digit(bin);
}

std::string MutexName(int device, int bin) {
  return std::string("KinetrelMutex") + Digit(device) + Digit(bin);
}

std::string EventName(int device, int bin) {
  return "OrvixDataPublishedEvent-Dev" + std::to_string(device) + "-Bin" + std::to_string(bin) +
         "Event";
}

}  // namespace kinetrel

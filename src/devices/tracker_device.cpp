#include "devices/tracker_device.h"

#include <array>
#include <bit>
#include <cstdio>
#include <new>

#include "devices/bounded_text.h"
#include "platform/clock.h"

namespace kinetrel {

TrackerDevice::TrackerDevice()
    : deviceName_(DeviceNameText(DeviceName::NoDevice)),
      secondsPerTick_(1.0 / static_cast<double>(ClockTicksPerSecond())),
      startCounter_(ClockTicks()) {}

TrackerDevice::~TrackerDevice() = default;

// ---- Sampling ------------------------------------------------------------------------------

void TrackerDevice::Poll() {
  if (!booted_) return;
  if (continuousByte_ != 0 && lastModeByte_ == continuousByte_) Write(&stopByte_, 1);
  // The bytes of the last poll have long left. Only what was written since must leave first.
  if (HasHandle() && bytesWritten() != writtenByPoll_) FlushOutput();
  const std::array<char, 2> bytes = {prePollByte_, pollByte_};
  const unsigned skipped = prePollByte_ == 0 ? 1 : 0;
  lastModeByte_ = pollByte_;
  Write(bytes.data() + skipped, 2 - skipped);
  writtenByPoll_ = bytesWritten();
}

void TrackerDevice::StartContinuous() {
  if (booted_) WriteModeByte(continuousByte_);
}

void TrackerDevice::WriteModeByte(char mode) {
  lastModeByte_ = mode;
  Write(&lastModeByte_, 1);
}

// ---- Stations ------------------------------------------------------------------------------

int TrackerDevice::SendStationCommand(const char*, unsigned, int) { return 0; }

unsigned TrackerDevice::SetSensorMask(unsigned mask, int sensorCount) {
  if (mask != 0 && sensorCount == 0) sensorMask_ = mask;
  return sensorMask_;
}

unsigned TrackerDevice::MaskWithFirstSensor(unsigned mask) const {
  if (mask == 0 || HasStation(mask, 0)) return mask;
  if (statusLog_ != nullptr) {
    Announce(*statusLog_, "\n\t", StatusCode::Refused,
             "%s has no sensor of the mask 0x%X; sensor 1 is sampled instead.", deviceName_, mask);
  }
  return StationBit(0);
}

// ---- Settings ------------------------------------------------------------------------------

int TrackerDevice::SetUnits(int units) { return units_ = units; }
int TrackerDevice::SetCrLf(int on) { return crLf_ = on; }
int TrackerDevice::SetProtocol(int protocol) { return protocol_ = protocol; }
int TrackerDevice::SetSensorVector4(int, float, float, float, float) { return 0; }
int TrackerDevice::SetAlignment(int, const float[3], const float[3]) { return 0; }
int TrackerDevice::SetAlignmentPose(int, const float[6]) { return 0; }
int TrackerDevice::ResetAlignment(int) { return 0; }
int TrackerDevice::SetSynchronization(int) { return 0; }
unsigned TrackerDevice::SetComponentMask(unsigned mask) { return componentMask_ = mask; }
int TrackerDevice::SetHemisphere(int, const float[3]) { return 0; }

bool TrackerDevice::SetSensorOffsetComponent(int sensor, unsigned component, double value) {
  if (component >= 6) return false;
  if (sensor < 0) {
    for (Pose& offset : offsets_) offset[component] = static_cast<float>(value);
    return true;
  }
  if (!HasRecord(sensor)) return false;
  offsets_[static_cast<std::size_t>(sensor)][component] = static_cast<float>(value);
  return true;
}

bool TrackerDevice::SetSensorPositionOffset(int sensor, const float xyz[3]) {
  for (unsigned i = 0; i < 3; ++i) {
    if (!TrackerDevice::SetSensorOffsetComponent(sensor, i, xyz[i])) return false;
  }
  return true;
}

bool TrackerDevice::SetSensorOffset(int sensor, const float pose[6]) {
  for (unsigned i = 0; i < 6; ++i) {
    if (!TrackerDevice::SetSensorOffsetComponent(sensor, i, pose[i])) return false;
  }
  return true;
}

bool TrackerDevice::SetControlString(const char* text) {
  WriteString(text, 0, false);
  return true;
}

// ---- Identity ------------------------------------------------------------------------------

bool TrackerDevice::IsProductUnknown() { return productCode_ == kUnknownProduct; }
bool TrackerDevice::IsBooted() { return booted_; }
int TrackerDevice::GetSensorCount() { return sensorCount_; }
const char* TrackerDevice::GetDeviceName() { return deviceName_; }

int TrackerDevice::GetDeviceType(char* name, int size) {
  CopyUpTo(name, size, deviceName_);
  return deviceType_;
}

unsigned TrackerDevice::GetSensorMask() { return sensorMask_; }

int TrackerDevice::GetStatusCode() {
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(statusWord_ & 0xFFFF));
}

int TrackerDevice::GetUnits() { return units_; }
bool TrackerDevice::GetCrLf() { return crLf_ != 0; }
int TrackerDevice::GetProtocol() { return protocol_; }

int TrackerDevice::GetProtocolText(char* text, int size) {
  char number[16];
  std::snprintf(number, sizeof number, "%d", protocol_);
  CopyUpTo(text, size, number);
  return protocol_;
}

unsigned TrackerDevice::GetComponentMask() { return componentMask_; }

int TrackerDevice::GetActiveSensorCount() {
  return std::popcount(sensorMask_ & FirstStations(sensorCount_));
}

int TrackerDevice::GetFrameRate() {
  const int active = GetActiveSensorCount();
  return active > 0 ? totalFrameRate_ / active : 0;
}

bool TrackerDevice::GetControlString(char* text, int size) {
  CopyUpTo(text, size, "");
  return false;
}

// ---- Records -------------------------------------------------------------------------------

float* TrackerDevice::GetSensorOffset(int sensor) {
  return HasRecord(sensor) ? offsets_[static_cast<std::size_t>(sensor)].data() : nullptr;
}

float* TrackerDevice::GetSensorPose(int sensor) {
  return HasRecord(sensor) ? poses_[static_cast<std::size_t>(sensor)].data() : nullptr;
}

float* TrackerDevice::GetSensorPosition(int sensor) { return TrackerDevice::GetSensorPose(sensor); }

float* TrackerDevice::GetSensorEuler(int sensor) {
  float* const pose = TrackerDevice::GetSensorPose(sensor);
  return pose != nullptr ? pose + 3 : nullptr;
}

float* TrackerDevice::GetSensorQuaternion(int sensor) {
  return HasRecord(sensor) ? quaternions_[static_cast<std::size_t>(sensor)].data() : nullptr;
}

// ---- Not virtual ---------------------------------------------------------------------------

// A driver may report more sensors than it has records.
bool TrackerDevice::HasRecord(int sensor) const {
  return sensor >= 0 && sensor < sensorCount_ && static_cast<std::size_t>(sensor) < poses_.size();
}

bool TrackerDevice::AllocateSensors(unsigned count) {
  if (count == 0 || count > kMostSensors) return false;
  FreeSensors();
  try {
    poses_.assign(count, Pose{});
    offsets_.assign(count, Pose{});
    quaternions_.assign(count, kIdentityQuaternion);
  } catch (const std::bad_alloc&) {
    FreeSensors();
    return false;
  }
  sensorCount_ = static_cast<int>(count);
  return true;
}

void TrackerDevice::FreeSensors() {
  poses_ = {};
  offsets_ = {};
  quaternions_ = {};
  sensorCount_ = 0;
}

double TrackerDevice::ElapsedSeconds() {
  return static_cast<double>(ClockTicks() - startCounter_) * secondsPerTick_;
}

void TrackerDevice::SetTimeOrigin(std::int64_t counter) { startCounter_ = counter; }

}  // namespace kinetrel

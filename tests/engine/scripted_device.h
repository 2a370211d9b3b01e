// A tracker whose answers a test decides, and that records the calls.
#pragma once

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "devices/device_factory.h"
#include "devices/tracker_device.h"
#include "engine/tracker_engine.h"

namespace kinetrel::test {

// What the device answers, and the calls it has seen. Outlives the device, which the engine owns.
struct Script {
  int portResult = 1;
  int portNumber = 1;
  BootResult bootResult = kBooted;
  int statusCode = 0;
  int frameRate = 0;  // 0: unknown
  std::function<unsigned(TrackerDevice&, double*)> readFrame;
  bool recordsGone = false;               // the record getters return null
  std::atomic<unsigned> lostSensors = 0;  // so they do for these
  const char* errorText = "";
  const char* readText = "";
  int reportCode = 0;

  void Note(const std::string& call) {
    const std::lock_guard held(lock);
    calls.push_back(call);
  }
  std::vector<std::string> Calls() {
    const std::lock_guard held(lock);
    return calls;
  }

  std::mutex lock;
  std::vector<std::string> calls;
  std::atomic<int> alive = 0;
};

class ScriptedDevice final : public TrackerDevice {
 public:
  explicit ScriptedDevice(Script& script) : script_(script) {
    AllocateSensors(32);
    SetName(DeviceName::AscensionFlock);
    ++script_.alive;
  }
  ~ScriptedDevice() override { --script_.alive; }

  using TrackerDevice::TellRecords;  // for the scripts

  int OpenPortNumber(int number, int baud) override {
    Note("OpenPortNumber %d %d", number, baud);
    portNumber_ = script_.portNumber;
    return script_.portResult;
  }
  int ClosePort() override {
    Note("ClosePort");
    return 1;
  }
  BootResult Boot(int reset) override {
    Note("Boot %d", reset);
    booted_ = script_.bootResult >= kBooted;
    return script_.bootResult;
  }
  int QueryStatus(char* text, int size) override {
    return std::snprintf(text, static_cast<std::size_t>(size), "all well");
  }
  unsigned ReadFrame(double* sampleTime) override {
    if (script_.readFrame == nullptr) return Pause(1) ? 0U : 0U;
    const unsigned updated = script_.readFrame(*this, sampleTime);
    if (updated == 0) FillReport();
    return updated;
  }
  void Poll() override {}
  void StartContinuous() override { Note("StartContinuous"); }
  unsigned SetSensorMask(unsigned mask, int count) override {
    Note("SetSensorMask %x %d", mask, count);
    return TrackerDevice::SetSensorMask(mask, count);
  }
  int SetUnits(int units) override {
    Note("SetUnits %d", units);
    return TrackerDevice::SetUnits(units);
  }
  int SetAlignment(int sensor, const float x[3], const float y[3]) override {
    Note("SetAlignment %d %g,%g,%g %g,%g,%g", sensor, x[0], x[1], x[2], y[0], y[1], y[2]);
    return 1;
  }
  int SetSynchronization(int mode) override {
    Note("SetSynchronization %d", mode);
    return 0;
  }
  unsigned SetComponentMask(unsigned mask) override {
    Note("SetComponentMask %x", mask);
    return TrackerDevice::SetComponentMask(mask);
  }
  int SetHemisphere(int sensor, const float zenith[3]) override {
    Note("SetHemisphere %d %g,%g,%g", sensor, zenith[0], zenith[1], zenith[2]);
    return 0;
  }
  bool SetSensorOffset(int sensor, const float pose[6]) override {
    Note("SetSensorOffset %d %g,%g,%g,%g,%g,%g", sensor, pose[0], pose[1], pose[2], pose[3],
         pose[4], pose[5]);
    return true;
  }
  int GetStatusCode() override { return script_.statusCode; }
  int GetFrameRate() override { return script_.frameRate; }
  float* GetSensorPose(int sensor) override {
    return IsGone(sensor) ? nullptr : TrackerDevice::GetSensorPose(sensor);
  }
  float* GetSensorPosition(int sensor) override { return GetSensorPose(sensor); }
  float* GetSensorEuler(int sensor) override {
    return IsGone(sensor) ? nullptr : TrackerDevice::GetSensorEuler(sensor);
  }
  float* GetSensorQuaternion(int sensor) override {
    return IsGone(sensor) ? nullptr : TrackerDevice::GetSensorQuaternion(sensor);
  }

 private:
  bool IsGone(int sensor) const {
    return script_.recordsGone || (script_.lostSensors >> sensor & 1U) != 0;
  }
  template <typename... Values>
  void Note(const char* format, Values... values) {
    char text[128];
    std::snprintf(text, sizeof text, format, values...);
    script_.Note(text);
  }
  void Note(const char* text) { script_.Note(text); }
  void FillReport() {
    std::snprintf(errorText_.data(), errorText_.size(), "%s", script_.errorText);
    std::snprintf(readText_.data(), readText_.size(), "%s", script_.readText);
    reportCode_ = script_.reportCode;
  }

  Script& script_;
};

// A joystick whose buttons a test decides.
class ScriptedJoystick final : public DAQControl {
 public:
  explicit ScriptedJoystick(std::atomic<std::uint32_t>& bits, int channels = 4, int bootResult = 1)
      : bits_(bits), bootResult_(bootResult) {
    digitalChannels_ = channels;
  }
  int Boot(int) override { return bootResult_; }
  int QueryCaps(char*, int) override { return 1; }
  int Read(int) override {
    digitalBits_ = bits_;
    return digitalBits_ != kUnplugged ? 1 : 0;
  }
  static constexpr std::uint32_t kUnplugged = 0xFFFFFFFF;

 private:
  std::atomic<std::uint32_t>& bits_;
  int bootResult_;
};

// The status log: one line "code text" per entry.
inline std::string LogOf(TrackerEngine& engine) {
  std::string lines;
  for (const StatusEntry& entry : engine.status().Entries()) {
    lines += std::to_string(entry.code) + ' ' + entry.text + '\n';
  }
  return lines;
}

inline DeviceFactory ScriptedFactory(Script& script) {
  DeviceFactory factory;
  factory.device = [&script](int) { return std::make_unique<ScriptedDevice>(script); };
  return factory;
}

}  // namespace kinetrel::test

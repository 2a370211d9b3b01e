#include "engine/apply_configuration.h"
#include "platform/console.h"

#include <array>

namespace kinetrel {
namespace {

constexpr int kGpsUnits = 2;

void ReportDeviceStatus(TrackerDevice& device, StatusLog& log) {
  std::array<char, 2048> text{};
  const int answered = device.QueryStatus(text.data(), static_cast<int>(text.size()) - 1);
  if (answered == 0 || text[0] == '\0') return;
  PrintOutput("\nSTATUS:\n\t%s\n", text.data());
  log.SetStatusF(StatusCode::Setup, "STATUS: %s", text.data());
}

void SendSettings(EngineState& state) REQUIRES(state.mutex) {
  StartConfig& config = state.config;
  TrackerDevice& device = *state.device;
  device.SetSensorMask(config.sensorMask, 0);
  device.SetComponentMask(config.componentMask);
  device.SetSensorOffset(-1, config.transmitterOffset.data());
  device.SetHemisphere(-1, config.hemisphere.data());
  for (const SensorSettings& each : config.sensors) {
    if (each.hemisphere) device.SetHemisphere(each.sensor, each.hemisphere->data());
  }
  if (FamilyOf(device.GetStatusCode()) == DeviceFamily::Gps) config.units = kGpsUnits;
  device.SetUnits(config.units);
  device.SetSynchronization(config.sync);
}

// A GPS receiver keeps its protocol; setting it would move the origin of its positions.
void RestoreProtocol(EngineState& state) REQUIRES(state.mutex) {
  if (!state.requests.protocol) return;
  if (FamilyOf(state.device->GetStatusCode()) == DeviceFamily::Gps) return;
  const int wanted = *state.requests.protocol;
  if (state.device->SetProtocol(wanted) == wanted) return;
  state.status.SetStatusF(StatusCode::Port, "Protocol %d not restored.", wanted);
}

}  // namespace

void PushRoll(EngineState& state, const EngineLock&) {
  StartConfig& config = state.config;
  if (config.rollAll < 0) return;
  config.transmitterOffset[5] = config.rollAll >= 1 ? kRolledOver : 0.0F;
  state.device->SetSensorOffset(-1, config.transmitterOffset.data());
}

void PushAlignment(EngineState& state, const EngineLock&, StatusCode code) {
  StartConfig& config = state.config;
  TrackerDevice& device = *state.device;
  bool aligned = false;
  if (config.Aligned()) {
    aligned = device.SetAlignment(-1, config.alignX.data(), config.alignY.data()) != 0;
  }
  for (const SensorSettings& each : config.sensors) {
    if (!each.alignment) continue;
    const float* const axes = each.alignment->data();
    aligned = device.SetAlignment(each.sensor, axes, axes + 3) != 0 || aligned;
  }
  if (aligned) Announce(state.status, " ", code, "ALIGNED");
}

int OpenConfiguredPort(TrackerDevice& device, const StartConfig& config) {
  if (!config.PortName().empty()) {
    return device.OpenPort(config.portName.c_str(), StartConfig::kBaud);
  }
  return device.OpenPortNumber(config.port, StartConfig::kBaud);
}

void ApplyConfiguration(EngineState& state, const EngineLock& lock) {
  SendSettings(state);
  PushRoll(state, lock);
  if (state.config.query != 0) ReportDeviceStatus(*state.device, state.status);
  PushAlignment(state, lock, StatusCode::Closing);
}

void RestoreConfiguration(EngineState& state, const EngineLock& lock) {
  SendSettings(state);
  PushAlignment(state, lock, StatusCode::Closing);
  RestoreProtocol(state);
  for (const std::string& text : state.requests.controlStrings) {
    if (state.device->SetControlString(text.c_str())) continue;
    state.status.SetStatusF(StatusCode::Port, "Control string not restored: %s", text.c_str());
  }
}

}  // namespace kinetrel

#include "engine/apply_configuration.h"

#include <array>
#include <cstdio>

namespace kinetrel {
namespace {

constexpr int kGpsUnits = 2;

void ReportDeviceStatus(TrackerDevice& device, StatusLog& log) {
  std::array<char, 2048> text{};
  const int answered = device.QueryStatus(text.data(), static_cast<int>(text.size()) - 1);
  if (answered == 0 || text[0] == '\0') return;
  std::printf("\nSTATUS:\n\t%s\n", text.data());
  std::fflush(stdout);
  log.SetStatusF(StatusCode::Setup, "STATUS: %s", text.data());
}

}  // namespace

void PushRoll(EngineState& state, const EngineLock&) {
  StartConfig& config = state.config;
  if (config.rollAll < 0) return;
  config.transmitterOffset[5] = config.rollAll >= 1 ? kRolledOver : 0.0F;
  state.device->SetSensorOffset(-1, config.transmitterOffset.data());
}

void PushAlignment(EngineState& state, const EngineLock&, StatusCode code) {
  const StartConfig& config = state.config;
  if (!config.Aligned()) return;
  if (state.device->SetAlignment(-1, config.alignX.data(), config.alignY.data()) == 0) return;
  Announce(state.status, " ", code, "ALIGNED");
}

void ApplyConfiguration(EngineState& state, const EngineLock& lock) {
  StartConfig& config = state.config;
  TrackerDevice& device = *state.device;
  device.SetSensorMask(config.sensorMask, 0);
  device.SetComponentMask(config.componentMask);
  device.SetSensorOffset(-1, config.transmitterOffset.data());
  device.SetHemisphere(-1, config.hemisphere.data());
  if (FamilyOf(device.GetStatusCode()) == DeviceFamily::Gps) config.units = kGpsUnits;
  device.SetUnits(config.units);
  device.SetSynchronization(config.sync);
  PushRoll(state, lock);
  if (config.query != 0) ReportDeviceStatus(device, state.status);
  PushAlignment(state, lock, StatusCode::Closing);
}

}  // namespace kinetrel

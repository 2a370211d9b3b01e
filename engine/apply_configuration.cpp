#include "engine/apply_configuration.h"

#include <array>
#include <cstdio>

namespace kinetrel {
namespace {

constexpr int kGpsFamily = 0xC00;
constexpr int kGpsUnits = 2;
constexpr float kRolled = -3.1415927F;  // -pi as a float

void ReportDeviceStatus(TrackerDevice& device, StatusLog& log) {
  std::array<char, 2048> text{};
  if (device.QueryStatus(text.data(), static_cast<int>(text.size()) - 1) == 0) return;
  std::printf("\nSTATUS:\n\t%s\n", text.data());
  std::fflush(stdout);
  log.SetStatusF(3, "STATUS: %s", text.data());
}

}  // namespace

void ApplyConfiguration(EngineState& state, const EngineLock&) {
  StartConfig& config = state.config;
  TrackerDevice& device = *state.device;
  device.SetSensorMask(config.sensorMask, 0);
  device.SetComponentMask(config.componentMask);
  device.SetSensorOffset(-1, config.transmitterOffset.data());
  device.SetHemisphere(-1, config.hemisphere.data());
  if ((device.GetStatusCode() & ~0xFF) == kGpsFamily) config.units = kGpsUnits;
  device.SetUnits(config.units);
  device.SetSynchronization(config.sync);
  if (config.rollAll >= 0) {
    config.transmitterOffset[5] = config.rollAll >= 1 ? kRolled : 0.0F;
    device.SetSensorOffset(-1, config.transmitterOffset.data());
  }
  if (config.query != 0) ReportDeviceStatus(device, state.status);
  if (config.Aligned() &&
      device.SetAlignment(-1, config.alignX.data(), config.alignY.data()) != 0) {
    Announce(state.status, " ", 6, "ALIGNED");
  }
}

}  // namespace kinetrel

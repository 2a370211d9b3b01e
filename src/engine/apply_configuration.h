// Opens the port that the configuration names, and sends the configuration to the booted device.
#pragma once

#include "engine/engine_state.h"

namespace kinetrel {

// Returns what the device's OpenPort or OpenPortNumber returns.
int OpenConfiguredPort(TrackerDevice& device, const StartConfig& config);

// Sends every setting to the device, in a fixed order. Reports the status of the device if the
// configuration asks for it. The roll setting replaces the roll of the transmitter offset.
void ApplyConfiguration(EngineState& state, const EngineLock& lock) REQUIRES(state.mutex);

// Sends the state in force to a device that was booted again: the configuration as the host has
// changed it, the protocol and the control strings.
void RestoreConfiguration(EngineState& state, const EngineLock& lock) REQUIRES(state.mutex);

// The roll of the transmitter offset that turns every sensor over: -pi as a float.
inline constexpr float kRolledOver = -3.1415927F;

// Sets that roll to 0 or kRolledOver, as the roll setting says, and sends the offset. A negative
// roll setting does nothing.
void PushRoll(EngineState& state, const EngineLock& lock) REQUIRES(state.mutex);

// Sends the alignments that are given: that of all sensors, then those of single ones. Prints and
// logs, with `code`, that the device accepted it.
void PushAlignment(EngineState& state, const EngineLock& lock, StatusCode code)
    REQUIRES(state.mutex);

}  // namespace kinetrel

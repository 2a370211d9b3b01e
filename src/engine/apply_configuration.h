// The start configuration on its way to a booted device.
#pragma once

#include "engine/engine_state.h"

namespace kinetrel {

// Pushes every setting to the device, in a fixed order; reports the device's status when asked to.
// The roll of the transmitter offset is 0 or -pi afterwards, as the roll setting says.
void ApplyConfiguration(EngineState& state, const EngineLock& lock);

// Single settings, as the whole push sends them.

// The roll of the transmitter offset when every sensor is turned over: -pi as a float.
inline constexpr float kRolledOver = -3.1415927F;

// Sets that roll to 0 or kRolledOver by the roll setting (a negative one changes nothing) and
// sends the offset.
void PushRoll(EngineState& state, const EngineLock& lock);

// Sends the alignment if one is given; says and logs, with `code`, that the device took it.
void PushAlignment(EngineState& state, const EngineLock& lock, int code);

}  // namespace kinetrel

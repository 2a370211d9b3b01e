// The start configuration on its way to a booted device.
#pragma once

#include "engine/engine_state.h"

namespace kinetrel {

// Pushes every setting to the device, in a fixed order; reports the device's status when asked to.
// The roll of the transmitter offset is 0 or -pi afterwards, as the roll setting says.
void ApplyConfiguration(EngineState& state, const EngineLock& lock);

}  // namespace kinetrel

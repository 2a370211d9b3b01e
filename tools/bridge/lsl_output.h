// The LSL outlet: one stream for each tracker, with all its chosen sensors.
//
// Eight float channels a sensor: x, y, z, the quaternion's w, x, y, z, and a confidence of 1, or 0
// where the device did not see the sensor; its other channels are NaN then. One sample for each
// frame of the device, with the time at which it was taken. Buttons have a stream of texts of their
// own. The meta-data follow the recommendations for motion capture of LSL's file format.
#pragma once

#include <memory>
#include <vector>

#include "bridge/output.h"

namespace kinetrel::bridge {

// Loads the library when it is opened, so that only those who ask for LSL need it.
std::unique_ptr<Output> MakeLsl(const OutputContext& context, const std::vector<Feed*>& feeds);

}  // namespace kinetrel::bridge

// The three calibrations, from what was measured to what was found.
#pragma once

#include <span>
#include <string>

#include "calibrate/finding.h"
#include "calibrate/pivot_fit.h"
#include "filters/distortion_map.h"

namespace kinetrel::calibrate {

// The turn and the shift from the tracker's frame to the room's. At least three points, not on a
// line.
Finding FindRoom(const PosePairTable& table);

// poses   of a tool whose tip stayed at one place.
// sensor  counted from 1.
Finding FindTip(std::span<const SensorPose> poses, unsigned sensor);

// file  where the table is, for the filter.
Finding FindMap(const PosePairTable& table, MapModel model, int degree, const std::string& file);

}  // namespace kinetrel::calibrate

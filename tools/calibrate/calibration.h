// One calibration from its first question to its files.
#pragma once

#include "calibrate/calibrate_options.h"

namespace kinetrel::calibrate {

// Asks on the standard error stream, reads answers from standard input, prints what was found on
// standard output. Returns the exit code.
int Calibrate(const CalibrateOptions& options);

}  // namespace kinetrel::calibrate

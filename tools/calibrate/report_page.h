// A finding as one HTML page that needs no other file.
#pragma once

#include <string>

#include "calibrate/finding.h"

namespace kinetrel::calibrate {

// subtitle  of what and when; any text.
std::string ReportPage(const Finding& finding, const std::string& subtitle);

}  // namespace kinetrel::calibrate

// What a scan found, as a table and as JSON.
#pragma once

#include <string>
#include <vector>

#include "scan/machine.h"
#include "scan/port_scan.h"
#include "scan/start.h"

namespace kinetrel::scan {

std::string ReportText(const std::vector<PortResult>& ports, const Machine& machine,
                       const std::vector<Start>& starts);
std::string ReportJson(const std::vector<PortResult>& ports, const Machine& machine,
                       const std::vector<Start>& starts);

}  // namespace kinetrel::scan

// Looks for trackers on serial ports, on all of them at once.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/port_list.h"
#include "probe/finding.h"
#include "probe/line_probe.h"
#include "scan/scan_options.h"

namespace kinetrel::scan {

struct PortResult {
  PortEntry port;
  bool opened = false;
  std::optional<Finding> finding = {};
  std::vector<Heard> heard = {};
  std::string words = {};  // what was found out, for a person
};

// What the system tells of the ports, and for each one that may be opened what listening and asking
// found, as `options` wants. Takes at most 30 s: a port whose driver hangs is given up.
std::vector<PortResult> ScanPorts(const ScanOptions& options);

// The same for ports that the system has told of.
std::vector<PortResult> ScanEntries(const std::vector<PortEntry>& ports,
                                    const ScanOptions& options);

// Why nothing was asked of a port that was not named; empty if it may be asked.
std::string WhyLeftAlone(const PortEntry& port);

}  // namespace kinetrel::scan

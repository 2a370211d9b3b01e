// Figures in the Prometheus text format, version 0.0.4. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "view/tracker_snapshot.h"

namespace kinetrel::view {

struct TrackerFigures {
  TrackerSnapshot tracker;
  std::vector<double> latencies;  // s from sample to publication, ascending
};

struct ServerFigures {
  std::size_t connections = 0;
  std::size_t viewers = 0;  // WebSockets among them
};

std::string MetricsText(const std::vector<TrackerFigures>& trackers, const ServerFigures& server,
                        std::int64_t nowNs);

}  // namespace kinetrel::view

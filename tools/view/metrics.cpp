#include "view/metrics.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <sstream>
#include <string_view>

#include "view/view_json.h"

namespace kinetrel::view {
namespace {

// Numbers with all digits that they have, and in any locale with a point.
std::string Number(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text.precision(std::abs(value) < 1e6 ? 9 : 17);
  text << value;
  return text.str();
}

std::string Head(std::string_view name, std::string_view type, std::string_view help) {
  return "# HELP " + std::string(name) + " " + std::string(help) + "\n# TYPE " + std::string(name) +
         " " + std::string(type) + "\n";
}

std::string Line(const std::string& name, const std::string& labels, double value) {
  return name + (labels.empty() ? "" : "{" + labels + "}") + " " + Number(value) + "\n";
}

std::string Slot(const TrackerFigures& figures) {
  return "slot=\"" + std::to_string(figures.tracker.slot) + "\"";
}

double Count(std::uint64_t value) { return static_cast<double>(value); }

// ---- One figure of each tracker -----------------------------------------------------------------

struct Metric {
  const char* name;
  const char* type;
  const char* help;
  double (*value)(const kinetrel_run& run);
};

constexpr std::array kMetrics = {
    Metric{"kinetrel_frames_total", "counter", "Frames published.",
           [](const kinetrel_run& run) { return Count(run.frames); }},
    Metric{"kinetrel_failed_reads_total", "counter", "Reads without a usable record.",
           [](const kinetrel_run& run) { return Count(run.failed_reads); }},
    Metric{"kinetrel_dropped_records_total", "counter", "Records that could not be used.",
           [](const kinetrel_run& run) { return Count(run.dropped); }},
    Metric{"kinetrel_recoveries_total", "counter", "Times that the tracker was lost and came back.",
           [](const kinetrel_run& run) { return Count(run.recoveries); }},
    Metric{"kinetrel_received_bytes_total", "counter", "Bytes from the device.",
           [](const kinetrel_run& run) { return Count(run.bytes_in); }},
    Metric{"kinetrel_sent_bytes_total", "counter", "Bytes to the device.",
           [](const kinetrel_run& run) { return Count(run.bytes_out); }},
    Metric{"kinetrel_rate_hertz", "gauge", "Frames a second, of about the last second.",
           [](const kinetrel_run& run) { return run.measured_rate; }},
    Metric{"kinetrel_nominal_rate_hertz", "gauge", "Rate that the device states; 0 unknown.",
           [](const kinetrel_run& run) { return run.nominal_rate; }},
    Metric{"kinetrel_jitter_seconds", "gauge", "Standard deviation of the time between frames.",
           [](const kinetrel_run& run) { return run.jitter; }},
    Metric{"kinetrel_latency_mean_seconds", "gauge",
           "From sample to publication, mean of about the last second.",
           [](const kinetrel_run& run) { return run.latency_mean; }},
    Metric{"kinetrel_latency_max_seconds", "gauge",
           "From sample to publication, longest of the run.",
           [](const kinetrel_run& run) { return run.latency_max; }},
};

std::string OneForEach(const std::vector<TrackerFigures>& trackers, const Metric& metric) {
  std::string text = Head(metric.name, metric.type, metric.help);
  for (const TrackerFigures& figures : trackers) {
    text += Line(metric.name, Slot(figures), metric.value(figures.tracker.run));
  }
  return text;
}

// ---- Several of each tracker --------------------------------------------------------------------

std::string Names(const std::vector<TrackerFigures>& trackers) {
  std::string text =
      Head("kinetrel_tracker_info", "gauge", "The tracker's name and type; always 1.");
  for (const TrackerFigures& figures : trackers) {
    const kinetrel_run& run = figures.tracker.run;
    text += Line("kinetrel_tracker_info",
                 Slot(figures) + ",name=" + Quoted(run.device_name) + ",type=\"" +
                     std::to_string(run.device_type) + "\"",
                 1);
  }
  return text;
}

std::string States(const std::vector<TrackerFigures>& trackers) {
  std::string text = Head("kinetrel_state", "gauge", "1 for the state that the tracker is in.");
  for (const TrackerFigures& figures : trackers) {
    for (int state = kinetrel_state_unknown; state <= kinetrel_state_lost; ++state) {
      const char* const name = kinetrel_state_text(static_cast<kinetrel_state>(state));
      text += Line("kinetrel_state", Slot(figures) + ",state=\"" + name + "\"",
                   figures.tracker.state == state ? 1 : 0);
    }
  }
  return text;
}

std::string Ages(const std::vector<TrackerFigures>& trackers, std::int64_t nowNs) {
  std::string text = Head("kinetrel_age_seconds", "gauge", "Since the sensor's newest sample.");
  for (const TrackerFigures& figures : trackers) {
    for (const auto& record : figures.tracker.newest) {
      if (!record) continue;
      const double age = static_cast<double>(nowNs) - static_cast<double>(record->sample_ns);
      text += Line("kinetrel_age_seconds",
                   Slot(figures) + ",sensor=\"" + std::to_string(record->sensor + 1) + "\"",
                   age * 1e-9);
    }
  }
  return text;
}

std::string FilterLags(const std::vector<TrackerFigures>& trackers) {
  std::string text = Head("kinetrel_filter_lag_seconds", "gauge",
                          "How late the sensor's filters make moving positions, as measured.");
  for (const TrackerFigures& figures : trackers) {
    for (unsigned i = 0; i < kinetrel_stream_sensors; ++i) {
      const double lag = kinetrel_run_filter_lag(&figures.tracker.run, i);
      if (lag == 0) continue;
      text += Line("kinetrel_filter_lag_seconds",
                   Slot(figures) + ",sensor=\"" + std::to_string(i + 1) + "\"", lag);
    }
  }
  return text;
}

std::string Latencies(const std::vector<TrackerFigures>& trackers) {
  std::string text = Head("kinetrel_latency_seconds", "summary",
                          "From sample to publication, of the records kept of the last minute.");
  for (const TrackerFigures& figures : trackers) {
    const std::vector<double>& latencies = figures.latencies;
    for (const double quantile : {0.5, 0.9, 0.99, 1.0}) {
      if (latencies.empty()) continue;
      const auto last = static_cast<double>(latencies.size() - 1);
      text +=
          Line("kinetrel_latency_seconds", Slot(figures) + ",quantile=\"" + Number(quantile) + "\"",
               latencies[static_cast<std::size_t>(std::round(last * quantile))]);
    }
  }
  return text;
}

}  // namespace

std::string MetricsText(const std::vector<TrackerFigures>& trackers, const ServerFigures& server,
                        std::int64_t nowNs) {
  std::string text = Names(trackers) + States(trackers);
  for (const Metric& metric : kMetrics) text += OneForEach(trackers, metric);
  text += Ages(trackers, nowNs) + FilterLags(trackers) + Latencies(trackers);
  text += Head("kinetrel_view_connections", "gauge", "Connections to kinetrel-view.") +
          Line("kinetrel_view_connections", "", static_cast<double>(server.connections));
  text += Head("kinetrel_view_viewers", "gauge", "Viewers that watch a tracker.") +
          Line("kinetrel_view_viewers", "", static_cast<double>(server.viewers));
  text += Head("kinetrel_view_info", "gauge", "The version of kinetrel-view; always 1.") +
          Line("kinetrel_view_info", "version=\"" KINETREL_VERSION "\"", 1);
  return text;
}

}  // namespace kinetrel::view

#include "view/view_json.h"

#include <array>
#include <cmath>
#include <nlohmann/json.hpp>
#include <span>

namespace kinetrel::view {
namespace {

using Json = nlohmann::ordered_json;

// Bytes that are not UTF-8 become U+FFFD.
std::string Text(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// ---- Values -------------------------------------------------------------------------------------

double Seconds(std::int64_t ns) { return static_cast<double>(ns) / 1e9; }

// Of seconds. Damaged times must not overflow.
double Age(const kinetrel_record& record, std::int64_t nowNs) {
  return Seconds(static_cast<std::int64_t>(static_cast<std::uint64_t>(nowNs) -
                                           static_cast<std::uint64_t>(record.sample_ns)));
}

// Without digits that only the conversion from binary brings. What is not finite becomes null.
double Rounded(double value, double steps) {
  return std::abs(value) < 1e6 ? std::round(value * steps) / steps : value;
}

Json KnownRate(double hertz) { return hertz > 0 ? Json(Rounded(hertz, 1e6)) : Json(nullptr); }

template <typename Number>
Json Values(std::span<const Number> numbers, double steps) {
  Json array = Json::array();
  for (const Number number : numbers) array.push_back(Rounded(double{number}, steps));
  return array;
}

Json UnitName(std::uint32_t unit) {
  constexpr std::array kNames = {"inch", "centimetre", "metre", "metre"};
  return unit < kNames.size() ? Json(kNames[unit]) : Json(nullptr);
}

Json ComponentNames(std::uint32_t components) {
  Json names = Json::array();
  if ((components & 1U) != 0) names.push_back("position");
  if ((components & 2U) != 0) names.push_back("angles");
  if ((components & 4U) != 0) names.push_back("quaternion");
  return names;
}

// ---- Parts --------------------------------------------------------------------------------------

std::string InstanceOf(const kinetrel_run& run) { return std::to_string(run.started_ns); }

Json ActiveSensors(const kinetrel_run& run) {
  Json sensors = Json::array();
  for (unsigned i = 0; i < kinetrel_stream_sensors; ++i) {
    if ((run.sensor_mask >> i & 1U) == 0) continue;
    sensors.push_back({{"sensor", i + 1},
                       {"name", run.sensor_names[i]},
                       {"filterLag", Rounded(kinetrel_run_filter_lag(&run, i), 1e5)}});
  }
  return sensors;
}

Json Tracker(const TrackerSnapshot& tracker) {
  if (tracker.result != kinetrel_stream_ok) {
    const bool none = tracker.result == kinetrel_stream_none;
    return {{"slot", tracker.slot},
            {"state", none ? "none" : "unreadable"},
            {"stateText", kinetrel_stream_result_text(tracker.result)}};
  }
  const kinetrel_run& run = tracker.run;
  return {{"slot", tracker.slot},
          {"state", kinetrel_state_text(tracker.state)},
          {"stateText", tracker.sentence},
          {"stateSince", Seconds(run.state_since_ns)},
          {"instance", InstanceOf(run)},
          {"name", run.device_name},
          {"type", run.device_type},
          {"port", run.port},
          {"started", Seconds(run.started_ns)},
          {"unit", UnitName(run.unit)},
          {"components", ComponentNames(run.components)},
          {"nominalRate", KnownRate(run.nominal_rate)},
          {"rate", KnownRate(run.measured_rate)},
          {"jitter", Rounded(run.jitter, 1e9)},
          {"latencyMean", Rounded(run.latency_mean, 1e9)},
          {"latencyMax", Rounded(run.latency_max, 1e9)},
          {"azimuthZero", Rounded(run.azimuth_zero, 1e9)},
          {"frames", run.frames},
          {"failedReads", run.failed_reads},
          {"dropped", run.dropped},
          {"recoveries", run.recoveries},
          {"bytesIn", run.bytes_in},
          {"bytesOut", run.bytes_out},
          {"sensors", ActiveSensors(run)}};
}

Json Sensor(const kinetrel_record& record, std::int64_t nowNs) {
  const auto has = [&](unsigned flag) { return (record.flags & flag) != 0; };
  Json sensor = {{"sensor", record.sensor + 1},
                 {"record", record.number},
                 {"frame", record.frame},
                 {"sampleTime", Seconds(record.sample_ns)},
                 {"publishTime", Seconds(record.publish_ns)},
                 {"age", Rounded(Age(record, nowNs), 1e9)},
                 {"flags", record.flags},
                 {"position", nullptr},
                 {"quaternion", nullptr},
                 {"angles", nullptr},
                 {"code", nullptr},
                 {"buttons", nullptr},
                 {"buttonsKnown", nullptr}};
  if (has(kinetrel_position_valid)) {
    sensor["position"] = Values(std::span<const double>(record.position), 1e9);
  }
  if (has(kinetrel_orientation_valid)) {
    sensor["quaternion"] = Values(std::span<const float>(record.orientation), 1e8);
    sensor["angles"] = Values(std::span<const float>(record.angles), 1e8);
  }
  if (has(kinetrel_code_valid)) sensor["code"] = record.device_code;
  if (has(kinetrel_buttons_valid)) {
    sensor["buttons"] = record.buttons;
    sensor["buttonsKnown"] = record.buttons_known;
  }
  return sensor;
}

Json Sensors(const TrackerSnapshot& tracker, std::int64_t nowNs) {
  Json sensors = Json::array();
  for (const auto& record : tracker.newest) {
    if (record) sensors.push_back(Sensor(*record, nowNs));
  }
  return sensors;
}

Json LogLines(const TrackerSnapshot& tracker, std::uint64_t after) {
  Json lines = Json::array();
  for (const kinetrel_log_line& line : tracker.log) {
    if (line.number <= after) continue;
    lines.push_back({{"number", line.number},
                     {"time", line.utc_ns / 1'000'000'000},
                     {"code", line.code},
                     {"text", line.text}});
  }
  return lines;
}

Json Dated(const Moment& moment) {
  return {{"version", KINETREL_VERSION},
          {"now", Seconds(moment.nowNs)},
          {"utc", Seconds(moment.utcNs)}};
}

}  // namespace

// ---- Answers ------------------------------------------------------------------------------------

std::string TrackersJson(const std::vector<TrackerSnapshot>& trackers, const Moment& moment) {
  Json answer = Dated(moment);
  answer["trackers"] = Json::array();
  for (const TrackerSnapshot& tracker : trackers) answer["trackers"].push_back(Tracker(tracker));
  return Text(answer);
}

std::string TrackerJson(const TrackerSnapshot& tracker, const Moment& moment) {
  Json answer = Dated(moment);
  answer["tracker"] = Tracker(tracker);
  answer["frame"] = nullptr;
  Json sensors = Sensors(tracker, moment.nowNs);
  if (!sensors.empty()) {
    answer["frame"] = {{"frame", tracker.NewestFrame()}, {"sensors", std::move(sensors)}};
  }
  answer["log"] = LogLines(tracker, 0);
  return Text(answer);
}

std::string ErrorJson(const std::string& sentence) { return Text(Json{{"error", sentence}}); }

// ---- Messages -----------------------------------------------------------------------------------

std::string StatusMessage(const TrackerSnapshot& tracker, const Moment& moment) {
  return Text(Json{{"type", "status"},
                   {"now", Seconds(moment.nowNs)},
                   {"utc", Seconds(moment.utcNs)},
                   {"tracker", Tracker(tracker)}});
}

std::string FrameMessage(const TrackerSnapshot& tracker, const Moment& moment) {
  return Text(Json{{"type", "frame"},
                   {"slot", tracker.slot},
                   {"now", Seconds(moment.nowNs)},
                   {"frame", tracker.NewestFrame()},
                   {"rate", KnownRate(tracker.run.measured_rate)},
                   {"sensors", Sensors(tracker, moment.nowNs)}});
}

std::string LogMessage(const TrackerSnapshot& tracker, std::uint64_t after) {
  return Text(Json{
      {"type", "log"}, {"instance", InstanceOf(tracker.run)}, {"lines", LogLines(tracker, after)}});
}

std::string Quoted(const std::string& text) { return Text(Json(text)); }

}  // namespace kinetrel::view

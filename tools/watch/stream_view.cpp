#include "watch/stream_view.h"

#include <algorithm>
#include <chrono>
#include <numbers>
#include <span>

namespace kinetrel::watch {
namespace {

constexpr double kDegrees = 180.0 / std::numbers::pi;

bool Has(const kinetrel_record& record, unsigned flag) { return (record.flags & flag) != 0; }

double AgeOf(const kinetrel_record& record, std::int64_t nowNs) {
  return static_cast<double>(nowNs - record.sample_ns) * 1e-9;
}

double AngleOf(const kinetrel_record& record, int i, bool degrees) {
  return double{record.angles[i]} * (degrees ? kDegrees : 1.0);
}

ViewLine Row(const char* head, const std::string& text, LineStyle style = LineStyle::Plain) {
  std::string line = head;
  line.resize(11, ' ');
  return {line + text, style};
}

std::string Milliseconds3(double seconds) { return Fixed(seconds * 1000, 2) + " ms"; }

std::string RateWords(const kinetrel_run& run) {
  return Fixed(run.nominal_rate, 1) + " Hz stated; " + Fixed(run.measured_rate, 1) +
         " Hz measured, jitter " + Milliseconds3(run.jitter);
}

std::string RecordWords(const StreamSnapshot& snapshot) {
  const kinetrel_run& run = snapshot.run;
  return std::to_string(run.frames) + " frames; " + std::to_string(snapshot.lost) +
         " records lost here, " + std::to_string(run.dropped) + " dropped, " +
         std::to_string(run.failed_reads) + " failed reads, " + std::to_string(run.recoveries) +
         " recoveries";
}

// Empty when the filters of no sensor were measured to add a lag.
std::string FilterWords(const StreamSnapshot& snapshot) {
  unsigned sensors = 0;
  unsigned most = 0;
  for (unsigned i = 0; i < kinetrel_stream_sensors; ++i) {
    if (snapshot.run.filter_lag[i] == 0) continue;
    ++sensors;
    if (snapshot.run.filter_lag[i] > snapshot.run.filter_lag[most]) most = i;
  }
  if (sensors == 0) return {};
  return "moving positions " + Milliseconds3(kinetrel_run_filter_lag(&snapshot.run, most)) +
         " late" + (sensors == 1 ? ", sensor " : " at most, sensor ") + std::to_string(most + 1);
}

ViewLine SensorRow(const kinetrel_record& record, double rate, const StreamSnapshot& snapshot,
                   bool degrees) {
  std::string line = Cell(record.sensor + 1.0, 6, 0);
  for (const double metre : record.position) line += Cell(metre, 10, 4);
  for (int i = 0; i < 3; ++i) {
    line += Cell(AngleOf(record, i, degrees), i == 1 ? 10 : 9, degrees ? 2 : 4);
  }
  line += Cell(AgeOf(record, snapshot.nowNs) * 1000, 9, 2) + Cell(rate, 7, 1);
  return {line, snapshot.state == kinetrel_state_running ? LineStyle::Plain : LineStyle::Faint};
}

template <typename Value>
std::string JsonArray(std::span<const Value> values) {
  std::string text = "[";
  for (const Value value : values) text += (text.size() == 1 ? "" : ",") + JsonNumber(value);
  return text + "]";
}

std::string ElsewhereWords(const std::vector<int>& slots) {
  if (slots.empty()) return {};
  std::string text = slots.size() == 1 ? " Slot " : " Slots ";
  for (std::size_t i = 0; i < slots.size(); ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(slots[i]);
  }
  return text + (slots.size() == 1 ? " has" : " have") + " one: --slot " +
         std::to_string(slots.front());
}

}  // namespace

std::string StreamStateWords(const StreamSnapshot& snapshot) {
  if (!snapshot.open) {
    return "waiting for a tracker on slot " + std::to_string(snapshot.slot) + " ..." +
           ElsewhereWords(snapshot.elsewhere);
  }
  return std::string(kinetrel_state_text(snapshot.state)) + ": " + AsciiText(snapshot.sentence);
}

std::string LogWords(const kinetrel_log_line& line) {
  const std::int64_t seconds = line.utc_ns / 1'000'000'000;
  const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02dZ %4d  ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()), line.code);
  return text.data() + AsciiText(line.text);
}

std::vector<ViewLine> StreamTable(const StreamSnapshot& snapshot, const TableForm& form) {
  const std::string name = AsciiText(snapshot.run.device_name);
  std::vector<ViewLine> lines = {
      {(name.empty() ? "no tracker" : name) + "  slot " + std::to_string(snapshot.slot),
       LineStyle::Strong},
      Row("state", StreamStateWords(snapshot),
          snapshot.state == kinetrel_state_running ? LineStyle::Plain : LineStyle::Alert)};
  if (snapshot.open) {
    lines.push_back(Row("rate", RateWords(snapshot.run)));
    lines.push_back(Row("latency", Milliseconds3(snapshot.run.latency_mean) + " mean, " +
                                       Milliseconds3(snapshot.run.latency_max) + " at most"));
    if (const std::string filters = FilterWords(snapshot); !filters.empty()) {
      lines.push_back(Row("filters", filters));
    }
    lines.push_back(Row("records", RecordWords(snapshot)));
    lines.push_back({});
    lines.push_back(
        {"sensor       x m       y m       z m  azimuth elevation     roll   age ms    /s",
         LineStyle::Faint});
    for (std::size_t i = 0; i < snapshot.newest.size(); ++i) {
      if (!snapshot.newest[i]) continue;
      lines.push_back(SensorRow(*snapshot.newest[i], snapshot.rates[i], snapshot, form.degrees));
    }
  }
  for (const kinetrel_log_line& line : snapshot.log) lines.push_back({LogWords(line)});
  const auto rows = static_cast<std::size_t>(std::max(form.rows - 1, 1));
  const auto columns = static_cast<std::size_t>(std::max(form.columns - 1, 1));
  if (lines.size() > rows) {
    // The log's newest lines count, the head before them.
    const std::size_t spare = std::min(snapshot.log.size(), lines.size() - rows);
    const auto firstOfLog = lines.end() - static_cast<std::ptrdiff_t>(snapshot.log.size());
    lines.erase(firstOfLog, firstOfLog + static_cast<std::ptrdiff_t>(spare));
    lines.resize(std::min(lines.size(), rows));
  }
  for (ViewLine& line : lines) line.text.resize(std::min(line.text.size(), columns));
  return lines;
}

std::string PlainRecord(const kinetrel_record& record, std::int64_t nowNs, bool degrees) {
  std::string line = "record " + std::to_string(record.number) + " frame " +
                     std::to_string(record.frame) + " sensor " + std::to_string(record.sensor + 1) +
                     " age " + Fixed(AgeOf(record, nowNs), 6);
  if (Has(record, kinetrel_buttons_valid)) line += " buttons " + std::to_string(record.buttons);
  if (Has(record, kinetrel_code_valid)) line += " code " + std::to_string(record.device_code);
  if (Has(record, kinetrel_position_valid)) {
    line += " position";
    for (const double metre : record.position) line += " " + Fixed(metre, 5);
  }
  if (Has(record, kinetrel_orientation_valid)) {
    line += " angles";
    for (int i = 0; i < 3; ++i) line += " " + Fixed(AngleOf(record, i, degrees), 5);
    line += " quaternion";
    for (const float part : record.orientation) line += " " + Fixed(double{part}, 5);
  }
  return line;
}

std::string JsonRecord(const kinetrel_record& record, const StreamSnapshot& snapshot,
                       bool degrees) {
  std::array<double, 3> angles{};
  for (int i = 0; i < 3; ++i) angles[static_cast<std::size_t>(i)] = AngleOf(record, i, degrees);
  const bool oriented = Has(record, kinetrel_orientation_valid);
  return "{\"slot\":" + std::to_string(snapshot.slot) +
         ",\"device\":" + JsonText(snapshot.run.device_name) +
         ",\"record\":" + std::to_string(record.number) +
         ",\"frame\":" + std::to_string(record.frame) +
         ",\"sensor\":" + std::to_string(record.sensor + 1) +
         ",\"age\":" + JsonNumber(AgeOf(record, snapshot.nowNs)) +
         ",\"sampleTime\":" + std::to_string(record.sample_ns) + ",\"buttons\":" +
         (Has(record, kinetrel_buttons_valid) ? std::to_string(record.buttons) : "null") +
         ",\"code\":" +
         (Has(record, kinetrel_code_valid) ? std::to_string(record.device_code) : "null") +
         ",\"filterLag\":" +
         (Has(record, kinetrel_filtered)
              ? JsonNumber(kinetrel_run_filter_lag(&snapshot.run, record.sensor))
              : "null") +
         ",\"position\":" +
         (Has(record, kinetrel_position_valid) ? JsonArray(std::span<const double>(record.position))
                                               : "null") +
         ",\"angleUnit\":" + (degrees ? "\"degree\"" : "\"radian\"") +
         ",\"angles\":" + (oriented ? JsonArray(std::span<const double>(angles)) : "null") +
         ",\"quaternion\":" +
         (oriented ? JsonArray(std::span<const float>(record.orientation)) : "null") + "}";
}

}  // namespace kinetrel::watch

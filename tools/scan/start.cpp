#include "scan/start.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "devices/device_types.h"
#include "platform/serial_line.h"
#include "program/program.h"
#include "report/output_file.h"

namespace kinetrel::scan {
namespace {

constexpr int kSlots = 16;

// As option --port takes it.
std::string PortOption(const std::string& name) {
  constexpr unsigned kHighestNumber = 16;
  const auto number = ComNumber(name);
  return number && *number <= kHighestNumber ? std::to_string(*number) : name;
}

// "..." of TOML.
std::string TomlText(const std::string& text) {
  std::string quoted = "\"";
  for (const char letter : text) {
    const auto code = static_cast<unsigned char>(letter);
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\u%04X", unsigned{code});
    if (code < 0x20 || code == 0x7F) {
      quoted += escaped;
    } else {
      quoted.append(letter == '"' || letter == '\\' ? "\\" : "").append(1, letter);
    }
  }
  return quoted + '"';
}

struct Tracker {
  std::string where;
  std::string title;  // for the head of the file
  int type = 0;
  std::string port;         // for --port
  std::string environment;  // "NAME=value" that the command needs; empty: none
  std::string sensors;      // for --sensors; empty: those that are sampled without it
};

std::optional<Tracker> TrackerAt(const PortResult& result) {
  if (!result.finding) return std::nullopt;
  const Finding& found = *result.finding;
  const FamilyRow& row = RowOf(found.family);
  if (row.deviceType == 0) return std::nullopt;
  const PortEntry& port = result.port;
  const std::string& name = port.stableName.empty() ? port.path : port.stableName;
  Tracker tracker{
      .where = port.path,
      .title = (found.model.empty() ? std::string(row.name) : found.model) + " at " + name,
      .type = row.deviceType,
      .port = PortOption(name),
      .environment = {},
      .sensors = {}};
  // The library of the Liberty takes COM numbers only.
  if (found.family == Family::Liberty && !ComNumber(name)) {
    tracker.environment = "KINETREL_COM1=" + ShellWord(name);
    tracker.port = "1";
  }
  // The other drivers sample one sensor.
  const bool several = found.family == Family::Fastrak || found.family == Family::Liberty;
  if (several && found.stations > 1) tracker.sensors = "1-" + std::to_string(found.stations);
  return tracker;
}

std::vector<Tracker> TrackersOf(const std::vector<PortResult>& ports, const Machine& machine) {
  std::vector<Tracker> trackers;
  for (const PortResult& port : ports) {
    if (auto tracker = TrackerAt(port)) trackers.push_back(std::move(*tracker));
  }
  for (const UsbTracker& unit : machine.usb) {
    if (!unit.advice.empty()) continue;
    trackers.push_back(
        {unit.name, unit.model + " at " + unit.name, unit.deviceType, unit.name, {}, {}});
  }
  return trackers;
}

std::string CommandOf(const Tracker& tracker, std::string_view device) {
  std::string command = tracker.environment.empty() ? "" : tracker.environment + " ";
  command.append("kinetrel --device ").append(device).append(" --port ");
  command += ShellWord(tracker.port);
  if (!tracker.sensors.empty()) command += " --sensors " + tracker.sensors;
  return command;
}

std::string ConfigOf(const Tracker& tracker, std::string_view device, int slot) {
  std::string text = "# " + Printable(tracker.title) + ", found by kinetrel-scan\n";
  if (!tracker.environment.empty()) {
    text += "# It needs " + Printable(tracker.environment) + " in the environment.\n";
  }
  text += "device = " + TomlText(std::string(device)) + "\n";
  text += "port = " + TomlText(tracker.port) + "\n";
  if (!tracker.sensors.empty()) text += "sensors = " + TomlText(tracker.sensors) + "\n";
  return text + "slot = " + std::to_string(slot) + "\n";
}

// The lowest slot that no tracker has. If all have one, the lowest that none of `taken` has.
int ChooseSlot(const Machine& machine, const std::vector<int>& taken) {
  int other = 0;
  for (int slot = 1; slot <= kSlots; ++slot) {
    if (std::ranges::find(taken, slot) != taken.end()) continue;
    if (std::ranges::find(machine.slots, slot, &Slot::number) == machine.slots.end()) return slot;
    if (other == 0) other = slot;
  }
  return std::max(other, 1);
}

}  // namespace

std::vector<Start> PlanStarts(const std::vector<PortResult>& ports, const Machine& machine) {
  std::vector<Start> starts;
  std::vector<int> slots;
  for (const Tracker& tracker : TrackersOf(ports, machine)) {
    const std::string_view device = FindDeviceType(tracker.type)->name;
    const auto sameKind = std::ranges::count_if(
        starts, [&](const Start& start) { return start.name.starts_with(device); });
    slots.push_back(ChooseSlot(machine, slots));
    starts.push_back(
        {tracker.where,
         std::string(device) + (sameKind == 0 ? "" : "-" + std::to_string(sameKind + 1)),
         CommandOf(tracker, device), ConfigOf(tracker, device, slots.back())});
  }
  return starts;
}

const Start* FindStart(const std::vector<Start>& starts, const std::string& where) {
  const auto found = std::ranges::find(starts, where, &Start::where);
  return found == starts.end() ? nullptr : &*found;
}

std::string WriteConfigs(const std::vector<Start>& starts, const std::string& target, bool force) {
  namespace fs = std::filesystem;
  if (starts.empty()) return "no tracker was found, so no file is written; --ask asks serial ports";
  std::error_code error;
  const bool isFolder = fs::is_directory(target, error);
  if (!isFolder && starts.size() > 1) {
    return std::to_string(starts.size()) + " trackers were found: give a folder for their files, " +
           "or name one port";
  }
  std::vector<std::pair<std::string, const Start*>> files;
  files.reserve(starts.size());
  for (const Start& start : starts) {
    files.emplace_back(isFolder ? (fs::path(target) / (start.name + ".toml")).string() : target,
                       &start);
  }
  for (const auto& [path, start] : files) {
    if (!force && fs::exists(path, error)) return path + " exists; --force replaces it";
  }
  for (const auto& [path, start] : files) {
    if (std::string why = report::WriteFile(path, start->config); !why.empty()) return why;
    std::fprintf(stderr, "kinetrel-scan: written: %s\n", path.c_str());
  }
  return {};
}

}  // namespace kinetrel::scan

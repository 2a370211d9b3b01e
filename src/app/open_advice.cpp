#include "app/open_advice.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <vector>

#include "platform/clock.h"
#include "platform/dynamic_library.h"
#include "platform/port_list.h"
#include "platform/serial_line.h"
#include "probe/finding.h"
#include "probe/line_probe.h"

namespace kinetrel {
namespace {

// ---- Words
// ---------------------------------------------------------------------------------------

constexpr const char* kNoDeviceNeeded = "Without a tracker: -d 8.";

std::string PortsHere() {
  constexpr std::size_t kMost = 6;
  const std::vector<PortEntry> ports = ListPorts();
  if (ports.empty()) return "This machine has no serial port.";
  std::string text = "Ports here: ";
  for (std::size_t i = 0; i < ports.size() && i < kMost; ++i) {
    text +=
        (i == 0 ? "" : ", ") + (ports[i].stableName.empty() ? ports[i].path : ports[i].stableName);
  }
  return text + (ports.size() > kMost ? " and others." : ".");
}

std::string RatesOf(const std::vector<Heard>& heard) {
  std::string text;
  for (const Heard& at : heard) text += (text.empty() ? "" : ", ") + std::to_string(at.baud);
  return text;
}

std::string Option(const FamilyRow& row) {
  return row.deviceType == 0 ? "Kinetrel has no driver for it"
                             : "start with -d " + std::to_string(row.deviceType);
}

// ---- What is on the line
// -------------------------------------------------------------------------

const FamilyRow* FamilyOfType(int deviceType) {
  const auto* const row = std::ranges::find(kFamilies, deviceType, &FamilyRow::deviceType);
  return row == std::end(kFamilies) || deviceType == 0 ? nullptr : row;
}

std::string AdviceFor(const Finding& found, const FamilyRow& wanted) {
  const FamilyRow& row = RowOf(found.family);
  const std::string baud = std::to_string(found.baud) + " baud";
  if (row.family != wanted.family)
    return "A " + std::string(row.name) + " sends there at " + baud + ": " + Option(row) + ".";
  // The FASTRAK's driver looks for the rate itself.
  if (found.baud != row.usualBaud && row.family != Family::Fastrak) {
    return "It answers at " + baud + ", but Kinetrel opens it at " + std::to_string(row.usualBaud) +
           ": set its switches to that rate.";
  }
  return "It answers now, at " + baud + ": it may have been starting up. Try again.";
}

// `name` for a person: "COM1 (/dev/ttyS0)".
std::string AdviceForLine(const std::string& name, const std::string& shown,
                          const FamilyRow& wanted, const std::function<bool()>& stop) {
  const std::int64_t began = ClockTicks();
  auto line = SerialLine::Open(name);
  if (!line.Ok()) return SerialLine::ExplainOpenFailure(name, line.status());
  const bool hasRates = DescribePort(name).kind != PortKind::PseudoTerminal;
  LineProbe probe(*line, hasRates, stop);
  std::optional<Finding> found = probe.Listen();
  if (!found) found = probe.Ask(std::nullopt, wanted.family);
  if (!probe.failure().Ok()) return shown + ": " + Describe(probe.failure());
  if (found) return AdviceFor(*found, wanted);
  const auto seconds = (ClockTicks() - began) / ClockTicksPerSecond() + 1;
  if (probe.heard().empty()) {
    return "No byte came from " + shown + " in " + std::to_string(seconds) +
           " s. Is the tracker switched on, and is the cable the right one (most need a crossed "
           "one)? " +
           PortsHere() + " \"kinetrel-scan --ask\" looks for it. " + kNoDeviceNeeded;
  }
  return "Bytes come from " + shown + " at " + RatesOf(probe.heard()) +
         " baud, but none that make sense: another kind of tracker, or other switches. "
         "\"kinetrel-scan --ask " +
         name + "\" finds out.";
}

// ---- The failures
// --------------------------------------------------------------------------------

struct LibraryRow {
  int deviceType;
  const char* library;
  const char* advice;
};
constexpr LibraryRow kLibraries[] = {
    {6, "isense.dll", "Install InterSense's library, or let KINETREL_ISENSE name its file."},
    {10, "pdi.dll",
     "A Liberty on a serial port needs a library: let KINETREL_PDI name one, such as the libpdi.so "
     "that "
     "comes with Kinetrel. On USB (-p U) it needs none."},
};

// Empty when the library is there, or none is needed.
std::string LibraryAdvice(const StartConfig& config) {
  for (const LibraryRow& row : kLibraries) {
    if (row.deviceType != config.deviceType || config.port == StartConfig::kUsbPort) continue;
    if (!DynamicLibrary::Load(row.library).Ok()) return row.advice;
  }
  return {};
}

std::string AdviceAfterFailedBoot(const StartConfig& config, const std::function<bool()>& stop) {
  if (std::string library = LibraryAdvice(config); !library.empty()) return library;
  const FamilyRow* const wanted = FamilyOfType(config.deviceType);
  if (wanted == nullptr) return {};
  if (config.port == StartConfig::kUsbPort) {
    return "Nothing answers on USB: unplug the tracker, wait, and plug it in again.";
  }
  const std::string name = config.PortName().empty() ? "COM" + std::to_string(config.port)
                                                     : std::string(config.PortName());
  const std::string path = DescribePort(name).path;
  return AdviceForLine(name, path == name ? name : name + " (" + path + ")", *wanted, stop);
}

std::string DeviceTypes() {
  std::string text = "Device types: ";
  for (const FamilyRow& row : kFamilies) {
    if (row.deviceType != 0) text += std::to_string(row.deviceType) + " " + row.name + ", ";
  }
  return text + "6 InterSense's library, 8 simulated, 11 relay.";
}

}  // namespace

std::string AdviceAfterFailedOpen(const StartConfig& config, OpenResult failure,
                                  const std::function<bool()>& stop) {
  switch (failure) {
    case OpenResult::NoDevice:
      return DeviceTypes();
    case OpenResult::PortFailed:
      return config.port == StartConfig::kUsbPort ? "" : PortsHere() + " " + kNoDeviceNeeded;
    case OpenResult::BootFailed:
      return AdviceAfterFailedBoot(config, stop);
    case OpenResult::AlreadyOpen:
    case OpenResult::Opened:
      break;
  }
  return {};
}

}  // namespace kinetrel

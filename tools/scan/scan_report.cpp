#include "scan/scan_report.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "devices/device_types.h"
#include "program/program.h"

namespace kinetrel::scan {
namespace {

using nlohmann::json;

std::string UsbNumbers(const UsbAdapter& usb) {
  char text[16];
  std::snprintf(text, sizeof text, "%04x:%04x", usb.vendor, usb.product);
  return text;
}

std::string HolderList(const PortEntry& port) {
  std::string text;
  for (const FileUser& holder : port.holders) {
    text += (text.empty() ? "" : ", ") + holder.program + " (process " +
            std::to_string(holder.process) + ")";
  }
  return text;
}

void AddLine(std::string& text, const std::string& label, const std::string& value) {
  if (value.empty()) return;
  std::string left = "    " + label;
  left.resize(16, ' ');
  text += left + Printable(value) + "\n";
}

std::string Described(const Finding& found) {
  const FamilyRow& row = RowOf(found.family);
  std::string text = found.model.empty() ? row.name : found.model;
  if (!found.firmware.empty()) text += ", firmware " + found.firmware;
  text += ", " + std::to_string(found.baud) + " baud";
  if (found.stations > 0) {
    text +=
        ", " + std::to_string(found.stations) + (found.stations == 1 ? " station" : " stations");
  }
  return text;
}

// The first line has the label.
void AddLines(std::string& text, const std::string& label, const std::string& lines) {
  std::string head = label;
  for (std::size_t start = 0, end; start < lines.size(); start = end + 1) {
    end = std::min(lines.find('\n', start), lines.size());
    AddLine(text, head, lines.substr(start, end - start));
    head.clear();
  }
}

void AddStart(std::string& text, const Start* start) {
  if (start == nullptr) return;
  AddLine(text, "start", start->command);
  AddLines(text, "config", start->config);
}

std::string PortText(const PortResult& result, const Start* start) {
  const PortEntry& port = result.port;
  std::string text = "  " + Printable(port.path) + "\n";
  AddLine(text, "name", port.stableName);
  std::string adapter = port.driver;
  if (port.usb) {
    adapter += " " + UsbNumbers(*port.usb) + " " + port.usb->maker + " " + port.usb->name;
    if (!port.usb->serial.empty()) adapter += ", serial number " + port.usb->serial;
  }
  AddLine(text, "adapter", adapter);
  AddLine(text, "open in", HolderList(port));
  if (result.finding) {
    AddLine(text, "device", RowOf(result.finding->family).name);
    AddLine(text, "model", Described(*result.finding));
  }
  AddLine(text, result.finding ? "" : "result", result.words);
  AddStart(text, start);
  return text;
}

std::string OptionOf(const FamilyRow& row) {
  const DeviceTypeName* const device = FindDeviceType(row.deviceType);
  return device == nullptr ? "" : std::string(device->name);
}

json ToJson(const PortResult& result, const Start* start) {
  const PortEntry& port = result.port;
  json out = {{"path", port.path},       {"name", port.stableName},
              {"driver", port.driver},   {"pseudo_terminal", port.kind == PortKind::PseudoTerminal},
              {"refusal", port.refusal}, {"opened", result.opened},
              {"words", result.words}};
  if (port.usb) {
    out["usb"] = {{"vendor", port.usb->vendor},
                  {"product", port.usb->product},
                  {"maker", port.usb->maker},
                  {"product_name", port.usb->name},
                  {"serial", port.usb->serial}};
  }
  out["holders"] = json::array();
  for (const FileUser& holder : port.holders) {
    out["holders"].push_back({{"process", holder.process}, {"program", holder.program}});
  }
  out["heard"] = json::array();
  for (const Heard& heard : result.heard) {
    out["heard"].push_back(
        {{"baud", heard.baud}, {"bytes", heard.bytes}, {"wrong_rate", heard.wrongRate}});
  }
  if (!result.finding) return out;
  const Finding& found = *result.finding;
  const FamilyRow& row = RowOf(found.family);
  out["device"] = {{"family", row.name},         {"option", OptionOf(row)},
                   {"type", row.deviceType},     {"model", found.model},
                   {"firmware", found.firmware}, {"baud", found.baud},
                   {"stations", found.stations}, {"streams", found.streams}};
  out["command"] = start == nullptr ? "" : start->command;
  out["config"] = start == nullptr ? "" : start->config;
  return out;
}

}  // namespace

std::string ReportText(const std::vector<PortResult>& ports, const Machine& machine,
                       const std::vector<Start>& starts) {
  std::string text = "Serial ports:\n";
  for (const PortResult& port : ports) text += PortText(port, FindStart(starts, port.port.path));
  if (ports.empty()) text += "  none\n";
  text += "Trackers on USB:\n";
  for (const UsbTracker& unit : machine.usb) {
    text += "  " + unit.name + "  " + Printable(unit.model) +
            (unit.advice.empty() ? "" : "  " + unit.advice) + "\n";
    AddStart(text, FindStart(starts, unit.name));
  }
  if (machine.usb.empty())
    text += "  " + (machine.usbWords.empty() ? "none" : machine.usbWords) + "\n";
  text += "Joysticks:\n";
  for (const std::string& stick : machine.joysticks) text += "  " + Printable(stick) + "\n";
  if (machine.joysticks.empty()) text += "  none\n";
  text += "Vendors' libraries:\n";
  for (const VendorLibrary& library : machine.libraries) {
    text += "  " + library.name + " (for -d " + std::to_string(library.deviceType) +
            "): " + (library.found ? "found" : "not found") + "\n";
  }
  text += "Slots in use:\n";
  for (const Slot& slot : machine.slots) {
    char rate[32] = "";
    if (slot.rate > 0) std::snprintf(rate, sizeof rate, ", %.1f Hz", slot.rate);
    text += "  " + std::to_string(slot.number) + "  " + Printable(slot.device) + ", " + slot.state +
            rate + ", process " + std::to_string(slot.process) + "\n";
  }
  if (machine.slots.empty()) text += "  none\n";
  return text;
}

std::string ReportJson(const std::vector<PortResult>& ports, const Machine& machine,
                       const std::vector<Start>& starts) {
  json out;
  out["ports"] = json::array();
  for (const PortResult& port : ports)
    out["ports"].push_back(ToJson(port, FindStart(starts, port.port.path)));
  out["usb"] = json::array();
  for (const UsbTracker& unit : machine.usb) {
    const Start* const start = FindStart(starts, unit.name);
    out["usb"].push_back({{"name", unit.name},
                          {"model", unit.model},
                          {"type", unit.deviceType},
                          {"advice", unit.advice},
                          {"command", start == nullptr ? "" : start->command},
                          {"config", start == nullptr ? "" : start->config}});
  }
  out["usb_words"] = machine.usbWords;
  out["joysticks"] = machine.joysticks;
  out["libraries"] = json::array();
  for (const VendorLibrary& library : machine.libraries) {
    out["libraries"].push_back({{"name", library.name},
                                {"type", library.deviceType},
                                {"found", library.found},
                                {"words", library.words}});
  }
  out["slots"] = json::array();
  for (const Slot& slot : machine.slots) {
    out["slots"].push_back({{"slot", slot.number},
                            {"device", slot.device},
                            {"state", slot.state},
                            {"process", slot.process},
                            {"rate", slot.rate}});
  }
  // Bytes that are not UTF-8, as a device may send them, are replaced.
  return out.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace kinetrel::scan

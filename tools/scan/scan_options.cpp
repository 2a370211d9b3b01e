#include "scan/scan_options.h"

#include "devices/device_types.h"
#include "platform/serial_line.h"
#include "program/command_line.h"

namespace kinetrel::scan {
namespace {

constexpr const char* kAbout =
    "Finds the trackers of this machine and prints how to start kinetrel on them.\n"
    "Without --listen or --ask it opens no port.";
constexpr const char* kExitCodes =
    "Exit codes: 0 done; 1 a link of --check is broken, no file could be written, or the system\n"
    "refused something; 2 bad arguments.\n";

bool IsNumber(const std::string& text) {
  return !text.empty() && text.size() < 4 &&
         text.find_first_not_of("0123456789") == std::string::npos;
}

// Empty: the device is unknown.
std::optional<CheckOptions> CompleteChain(CheckOptions chain, const std::string& device,
                                          const std::string& port, std::optional<int> slot) {
  if (const DeviceTypeName* const named = FindDeviceType(device)) {
    chain.deviceType = named->type;
  } else if (IsNumber(device)) {
    chain.deviceType = std::stoi(device);
  } else {
    return std::nullopt;
  }
  const bool onlyUnit = port == "U" || port == "u";
  chain.port = IsNumber(port) ? "COM" + port : onlyUnit ? "usb" : port;
  chain.slot = slot.value_or(static_cast<int>(ComNumber(chain.port).value_or(1) + 15) % 16 + 1);
  return chain;
}

}  // namespace

ScanCommand ParseScanCommand(int count, const char* const* arguments) {
  ScanCommand command;
  ScanOptions& options = command.options;
  bool listen = false;
  bool ask = false;
  ToolCommandLine app("kinetrel-scan", kAbout, kExitCodes);
  app.add_option("PORT", options.ports,
                 "only these ports, also if they would be left alone: a path or COM<n>");
  app.add_flag("--listen", listen,
               "open the free ports and listen for trackers that send by themselves");
  app.add_flag("--ask", ask, "listen, then ask each free port which tracker is there");
  app.add_flag("--json", options.json, "print JSON");
  auto* const write =
      app.add_option("--write-config", options.configTarget,
                     "write the configuration of the tracker that is found to this file;\n"
                     "of several trackers: to files in this folder")
          ->type_name("FILE");
  app.add_flag("--force", options.force, "replace files that exist")->needs(write);
  bool check = false;
  CheckOptions chain;
  std::string device = std::to_string(chain.deviceType);
  std::string port = chain.port;
  std::optional<int> slot;
  auto* const checking =
      app.add_flag("--check", check,
                   "walk the chain from the port to the clients; stop at the first broken link");
  app.add_option("-d,--device", device, "with --check: the tracker, by number or name (2, fastrak)")
      ->needs(checking);
  app.add_option("-p,--port", port,
                 "with --check: its port: a COM number, a path, usb or usb:1-2 (1)")
      ->needs(checking);
  app.add_option("-w,--slot", slot, "with --check: the slot it publishes in (that of the port)")
      ->needs(checking)
      ->check(NumberFrom(1, 16));
  command.ending = app.Read(count, arguments);
  if (command.ending) return command;
  if (check &&
      (listen || ask || options.json || !options.configTarget.empty() || !options.ports.empty())) {
    command.ending = app.Mistake("--check takes only -d, -p and -w");
    return command;
  }
  if (check) {
    options.check = CompleteChain(chain, device, port, slot);
    if (!options.check) {
      command.ending =
          app.Mistake("--device: wants a number or a name such as fastrak, not '" + device + "'");
    }
  }
  if (listen) options.effort = Effort::Listen;
  if (ask) options.effort = Effort::Ask;
  return command;
}

}  // namespace kinetrel::scan

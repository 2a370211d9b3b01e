#include "bridge/bridge_options.h"

#include <CLI/CLI.hpp>
#include <cstdio>

namespace kinetrel::bridge {
namespace {

constexpr const char* kVersion = " 0.1.0\n";

std::string Footer() {
  const Program& program = ThisProgram();
  return "\nAn output is PROTOCOL or PROTOCOL://HOST:PORT/PATH?OPTION=VALUE&OPTION=VALUE, for "
         "example\n  " +
         std::string(program.name) + " " + std::string(program.example) +
         "\nEvery output has the options sensors, name, axes, scale, mount, arm, room and origin.\n"
         "Exit codes: 0 done, 2 an argument or an output cannot be used.";
}

// CLI11 keeps the values of each option together; --slot holds for the outputs behind it, so the
// order of both is needed.
std::vector<BridgeOptions::Wanted> InOrder(const CLI::App& app, const CLI::Option* slots,
                                           const CLI::Option* outputs) {
  std::vector<BridgeOptions::Wanted> wanted;
  std::size_t slotsSeen = 0;
  std::size_t outputsSeen = 0;
  int slot = 1;
  bool isServed = false;  // the slot has an output
  const auto serve = [&] {
    if (!isServed && !ThisProgram().output.empty()) {
      wanted.push_back({slot, std::string(ThisProgram().output)});
    }
  };
  for (const CLI::Option* const each : app.parse_order()) {
    if (each == slots) {
      if (slotsSeen > 0) serve();
      slot = std::stoi(slots->results()[slotsSeen++]);
      isServed = false;
    }
    if (each == outputs) {
      wanted.push_back({slot, outputs->results()[outputsSeen++]});
      isServed = true;
    }
  }
  serve();
  return wanted;
}

// "127.0.0.1:9000  ", "port 3883  ", or empty for a protocol without addresses.
std::string DefaultPlace(const Protocol& protocol) {
  if (protocol.port == 0) return "";
  const std::string before = protocol.host.empty() ? "port" : std::string(protocol.host);
  return before + (protocol.host.empty() ? " " : ":") + std::to_string(protocol.port) + "  ";
}

}  // namespace

BridgeCommand ParseBridgeCommand(int count, const char* const* arguments) {
  BridgeCommand command;
  BridgeOptions& options = command.options;
  CLI::App app("Sends the poses of running trackers in the protocols of other software.",
               std::string(ThisProgram().name));
  app.footer(Footer());
  std::vector<int> slots;
  std::vector<std::string> outputs;
  bool list = false;
  bool version = false;
  const CLI::Option* const slot =
      app.add_option("--slot", slots, "Slot of the tracker, 1 to 16, for the outputs that follow")
          ->expected(1)
          ->allow_extra_args(false)
          ->take_all()
          ->check(CLI::Range(1, 16));
  const CLI::Option* const output =
      app.add_option("OUTPUT", outputs, "Where to send; --list shows the protocols");
  if (ThisProgram().listens) {
    app.add_option("--listen", options.listen, "Address that servers listen on")
        ->capture_default_str();
  }
  app.add_option("--status", options.statusSeconds, "Seconds between two tables; 0: none")
      ->check(CLI::Range(0, 86400))
      ->capture_default_str();
  app.add_flag("--once", options.once, "End when every output has sent a frame");
  app.add_flag("--dry-run", options.dryRun, "Print the packets instead of sending them");
  app.add_flag("--list", list, "List the protocols, their ports, axes and units");
  app.add_flag("--version", version, "Print the version");
  try {
    app.parse(count, arguments);
  } catch (const CLI::CallForHelp&) {
    return {BridgeRequest::Print, {}, app.help()};
  } catch (const CLI::ParseError& error) {
    return {BridgeRequest::Refuse, {}, error.what()};
  }
  if (list || version)
    return {BridgeRequest::Print,
            {},
            list ? ProtocolList() : std::string(ThisProgram().name) + kVersion};
  options.outputs = InOrder(app, slot, output);
  if (options.outputs.empty()) {
    return {BridgeRequest::Refuse, {}, "name at least one output, for example vrpn"};
  }
  return command;
}

std::string ProtocolList() {
  std::string text;
  for (const Protocol& row : Protocols()) {
    const AxesPreset* const axes = FindAxesPreset(row.axes);
    char line[512];
    std::snprintf(line, sizeof line, "%-17s %s%s\n%-17s axes: %s; rotation: %s\n",
                  TitleOf(row).c_str(), DefaultPlace(row).c_str(), std::string(row.help).c_str(),
                  "", axes == nullptr ? "" : std::string(axes->words).c_str(),
                  std::string(row.angles).c_str());
    text += line;
  }
  text += "\nPresets for axes=:\n";
  for (const AxesPreset& preset : AxesPresets()) {
    char line[256];
    std::snprintf(line, sizeof line, "%-12s %s\n", std::string(preset.name).c_str(),
                  std::string(preset.words).c_str());
    text += line;
  }
  return text;
}

}  // namespace kinetrel::bridge

#include "bridge/bridge_options.h"

#include <cstdio>

#include "program/command_line.h"

namespace kinetrel::bridge {
namespace {

std::string Footer() {
  const Program& program = ThisProgram();
  return "\nAn output is PROTOCOL or PROTOCOL://HOST:PORT/PATH?OPTION=VALUE&OPTION=VALUE, for "
         "example\n  " +
         std::string(program.name) + " " + std::string(program.example) +
         "\nEvery output has the options sensors, name, axes, scale, mount, arm, room and origin; "
         "the\n"
         "manual page explains them, and those of single protocols.\n"
         "Exit codes: 0 ended as asked, 2 an argument is wrong or an output cannot be opened.";
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

// "to 127.0.0.1:9000", "to HOST:9000", "serves port 3883", or empty for a protocol without
// addresses.
std::string DefaultPlace(const Protocol& protocol) {
  if (protocol.port == 0) return "";
  const std::string port = std::to_string(protocol.port);
  if (protocol.server) return "; serves port " + port;
  return "; to " + (protocol.host.empty() ? "HOST" : std::string(protocol.host)) + ":" + port;
}

// "x right, y up, z forward; lengths in m"
std::string WordsOf(const AxesPreset& preset) {
  std::string words(preset.words);
  const std::size_t unit = words.find("; ");
  if (unit != words.npos) words.insert(unit + 2, "lengths in ");
  return words;
}

}  // namespace

BridgeCommand ParseBridgeCommand(int count, const char* const* arguments) {
  BridgeCommand command;
  BridgeOptions& options = command.options;
  ToolCommandLine app(std::string(ThisProgram().name),
                      "Sends the poses of running trackers in the protocols of other software.",
                      Footer());
  std::vector<int> slots;
  std::vector<std::string> outputs;
  bool list = false;
  const CLI::Option* const slot =
      app.add_option("--slot", slots,
                     "Slot of the tracker, 1 to 16, for the outputs that follow it [1]")
          ->expected(1)
          ->allow_extra_args(false)
          ->take_all()
          ->check(NumberFrom(1, 16))
          ->option_text("NUMBER");
  const CLI::Option* const output =
      app.add_option("OUTPUT", outputs, "Where to send; --list shows the protocols");
  if (ThisProgram().listens) {
    app.add_option("--listen", options.listen,
                   "Address that servers listen on; 0.0.0.0: every address of the machine")
        ->option_text("ADDRESS [127.0.0.1]");
  }
  app.add_option("--status", options.statusSeconds,
                 "Time between two tables on standard error of what goes where; 0: none")
      ->check(NumberFrom(0, 86400))
      ->option_text("SECONDS [5]");
  app.add_flag("--once", options.once, "End when every output has sent a frame");
  app.add_flag("--dry-run", options.dryRun, "Print the packets instead of sending them");
  app.add_flag("--list", list, "List the protocols, their ports, axes and units");
  command.ending = app.Read(count, arguments);
  if (list && !command.ending) command.ending = Ending{0, ProtocolList()};
  if (command.ending) return command;
  options.outputs = InOrder(app, slot, output);
  if (options.outputs.empty()) {
    command.ending = app.Mistake("name at least one output, for example vrpn");
  }
  return command;
}

std::string ProtocolList() {
  std::string text;
  for (const Protocol& row : Protocols()) {
    const AxesPreset* const axes = FindAxesPreset(row.axes);
    char line[512];
    std::snprintf(line, sizeof line, "%-17s %s%s\n%-17s axes: %s; rotation: %s\n",
                  TitleOf(row).c_str(), std::string(row.help).c_str(), DefaultPlace(row).c_str(),
                  "", axes == nullptr ? "" : WordsOf(*axes).c_str(),
                  std::string(row.angles).c_str());
    text += line;
  }
  text += "\nPresets for axes=:\n";
  for (const AxesPreset& preset : AxesPresets()) {
    char line[256];
    std::snprintf(line, sizeof line, "%-12s %s\n", std::string(preset.name).c_str(),
                  WordsOf(preset).c_str());
    text += line;
  }
  return text;
}

}  // namespace kinetrel::bridge

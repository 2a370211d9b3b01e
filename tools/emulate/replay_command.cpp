#include "emulate/replay_command.h"

#include <CLI/CLI.hpp>
#include <fstream>
#include <utility>

#include "emulate/captured_line.h"
#include "emulate/replay_device.h"

namespace kinetrel::emulate {
namespace {

// Bytes leave at the moment at which they came then.
constexpr unsigned kAtOnce = 4'000'000'000;

constexpr OptionRow kReplayOptions[] = {
    {"--speed", "FACTOR", "2 plays twice as fast as it was captured (1)"},
    {"--loop", "", "begin anew at the end: the port disappears for a second"},
    {"--config", "PATH", "write the options of the captured run there, for kinetrel --config PATH"},
};

// Of every device, but not of this one: the capture says all that.
constexpr const char* kOtherOptions[] = {
    "--port",  "--motion", "--from", "--sensors", "--pose-noise", "--jitter",   "--clock-ppm",
    "--fault", "--seed",   "--baud", "--whole",   "--usb",        "--from-slot"};

const DeviceRow kReplayRow = {"replay", "", 0, "", true, kAtOnce, nullptr, nullptr, 0, nullptr};

void WriteConfig(OptionValues& values, const std::string& path, const std::string& options) {
  std::ofstream file(path, std::ios::trunc);
  file << options;
  file.close();
  if (!file) values.Refuse("--config: " + path + " cannot be written");
}

}  // namespace

void AddReplay(CLI::App& app) {
  CLI::App* const replay =
      app.add_subcommand("replay", "the device of a capture, made with kinetrel --capture FILE");
  replay->group("Devices")->footer(
      "It answers what kinetrel sends with what the device answered then. Start kinetrel with the\n"
      "options of the captured run: --config writes them. Of the options of every device it has\n"
      "--link. A program that sends something else is told so here, in words.");
  replay->add_option("FILE", "the capture")->required();
  AddOptions(*replay, kReplayOptions, "Options");
}

void ReadReplay(EmulateCommand& command, OptionValues& values, const std::string& file) {
  for (const char* const name : kOtherOptions) {
    if (values.Has(name)) values.Refuse(std::string(name) + ": replay has no such option");
  }
  ReplayOptions options;
  options.speed = values.Get("--speed", 1.0, 0.01, 100.0);
  options.loop = values.Has("--loop");
  if (!values.complaint().empty()) return;
  CapturedLine capture;
  if (const std::string complaint = capture.Open(file); !complaint.empty()) {
    return values.Refuse(file + ": " + complaint);
  }
  const std::string device = capture.Device();
  command.row = &kReplayRow;
  command.kinetrelOptions = device.empty() ? "" : "--device " + device;
  if (const std::string config = values.Text("--config", ""); !config.empty()) {
    WriteConfig(values, config, capture.Options());
    command.kinetrelOptions = "--config " + ShellWord(config);
  }
  command.options.line = {.baud = kAtOnce, .whole = true, .anyRate = true};
  command.options.link = values.Text("--link", "");
  command.show = true;
  command.device = std::make_unique<ReplayDevice>(std::move(capture), options);
}

}  // namespace kinetrel::emulate

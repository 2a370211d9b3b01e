#include "emulate/emulate_command.h"

#include <cmath>
#include <string>

#include "emulate/replay_command.h"
#include "program/command_line.h"

namespace kinetrel::emulate {
namespace {

// USB is so fast that a record is out at once.
constexpr unsigned kUsbRate = 4'000'000'000;

constexpr OptionRow kCommonOptions[] = {
    {"--link", "PATH",
     "a name for the port (kinetrel-DEVICE in XDG_RUNTIME_DIR, else in the temporary folder)"},
    {"--port", "NAME",
     "a real serial line instead of a pseudo-terminal, such as /dev/ttyUSB1\n"
     "or COM6: the host is at the other end of its cable"},
    {"--motion", "MOTION",
     "circle[:RADIUS_CM[,PERIOD_S]] (default), ramp, file:CSV, or\n"
     "hold:X,Y,Z[,AZIMUTH,ELEVATION,ROLL] (cm, degrees)"},
    {"--from", "SOURCE",
     "poses of another tracker instead: slot:N, N from 1 to 16, is the one\n"
     "that publishes there, and FILE.mcap is a recording of kinetrel-record"},
    {"--speed", "FACTOR", "with --from FILE.mcap: 2 plays twice as fast (1)"},
    {"--loop", "", "with --from FILE.mcap: at the end it begins anew"},
    {"--from-slot", "NUMBER", "with --from FILE.mcap: the tracker of this slot (the first)"},
    {"--sensors", "LIST",
     "with --from: the sensors that stations 1, 2, ... take, as in 3,1\n"
     "(station 1 takes sensor 1, and so on)"},
    {"--pose-noise", "CM[,DEGREES]", "noise of each coordinate and angle, as standard deviations"},
    {"--jitter", "MS", "records leave late by 3 MS on average, standard deviation MS (0)"},
    {"--clock-ppm", "NUMBER", "the device's clock is faster by so many millionths (0)"},
    {"--fault", "WHAT@WHEN", "a fault and when it occurs, see below; repeatable"},
    {"--seed", "NUMBER", "seed of chance and noise: the same seed gives the same faults (1)"},
    {"--baud", "RATE", "baud rate of the line (default: that of the device)"},
    {"--whole", "", "hand over each record in one piece, as a USB adapter does"},
    {"--usb", "", "play it on USB instead, for hosts with the environment that is printed"},
    {"--show", "", "show what the host sends, in words"},
};

constexpr const char* kAbout =
    "Plays a tracker at the other end of a serial line: opens a pseudo-terminal, prints its name "
    "and\n"
    "how to start kinetrel on it, and answers there as the device would, at its own rate and at\n"
    "the line's speed. Ctrl-C ends it.\n"
    "kinetrel-emulate DEVICE --help lists the device's own options.";

constexpr const char* kFaultHelp =
    "Faults, and when they occur:\n"
    "  noise[:BYTES]       random bytes between the records\n"
    "  garble[:BYTES]      random bytes in a record\n"
    "  cut[:BYTES]         only the first BYTES of a record\n"
    "  silence[:SECONDS]   nothing comes\n"
    "  error[:CODE]        the device reports an error\n"
    "  restart             the device loses its power for a moment\n"
    "  unplug[:SECONDS]    the port disappears and comes back\n"
    "  @5s @/5s            at 5 s, every 5 s\n"
    "  @#100 @/#100        at the 100th record, every 100th\n"
    "  @1%                 with this chance for each record\n"
    "  @usr1 @usr2         at the signal SIGUSR1, SIGUSR2\n"
    "On a terminal the keys n g c s e r u cause one at once.\n"
    "  kinetrel-emulate fastrak --fault silence:1@/20s --fault garble@0.5% --fault unplug@usr1";

std::string DeviceNames() {
  std::string names;
  for (const DeviceRow& row : Devices()) names.append(names.empty() ? "" : ", ").append(row.name);
  return names;
}

void ReadFaults(OptionValues& values, LineOptions& line) {
  for (const std::string& text : values.All("--fault")) {
    if (const auto rule = ParseFaultRule(text)) {
      line.faults.push_back(*rule);
    } else {
      values.Refuse("--fault: wants WHAT@WHEN, not '" + text + "'");
    }
  }
}

std::shared_ptr<const Motion> WithNoise(OptionValues& values, std::shared_ptr<const Motion> motion,
                                        std::uint64_t seed) {
  if (!values.Has("--pose-noise")) return motion;
  const std::string text = values.Text("--pose-noise", "");
  const auto noise = ParsePoseNoise(text);
  if (!noise) values.Refuse("--pose-noise: wants CM[,DEGREES], not '" + text + "'");
  return MakeNoisy(std::move(motion), noise.value_or(PoseNoise{}), seed);
}

StationMap ReadSensors(OptionValues& values) {
  std::vector<int> sensors;
  const std::string text = values.Text("--sensors", "");
  for (std::string_view rest = text; !rest.empty();) {
    const auto sensor = ParseNumber(NextField(rest, ','), 1, 32);
    if (!sensor || sensors.size() == LiveMotion::kMostStations) {
      values.Refuse("--sensors: wants sensors from 1 to 32 with commas, not '" + text + "'");
      break;
    }
    sensors.push_back(*sensor);
  }
  return StationMap(std::move(sensors));
}

void RefusePace(OptionValues& values) {
  for (const char* const ofRecording : {"--speed", "--loop", "--from-slot"}) {
    if (values.Has(ofRecording)) {
      values.Refuse(std::string(ofRecording) + ": goes with --from FILE.mcap");
    }
  }
}

void ReadSource(EmulateCommand& command, OptionValues& values) {
  constexpr std::string_view kSlot = "slot:";
  for (const char* const own : {"--motion", "--pose-noise"}) {
    if (values.Has(own)) values.Refuse(std::string(own) + ": goes without --from");
  }
  const std::string source = values.Text("--from", "");
  const auto motion = std::make_shared<LiveMotion>(ReadSensors(values), command.row->unitsPerMetre);
  command.motion = motion;
  if (!source.starts_with(kSlot)) {
    const record::Pace pace = {.speed = values.Get("--speed", 1.0, 0.01, 100.0),
                               .loop = values.Has("--loop")};
    const int slot = values.Get("--from-slot", 0, 1, 16);
    if (!values.complaint().empty()) return;
    MadeSource made = MakeRecordingSource(source, slot, pace, motion);
    if (!made.source) return values.Refuse("--from: " + made.complaint);
    command.feed = std::make_unique<PoseFeed>(std::move(made.source));
    return;
  }
  const auto slot = ParseNumber(std::string_view(source).substr(kSlot.size()), 1, 16);
  if (!slot) {
    return values.Refuse("--from: wants slot:1 to slot:16, or FILE.mcap, not '" + source + "'");
  }
  RefusePace(values);
  command.feed = std::make_unique<PoseFeed>(MakeSlotSource(*slot, motion));
}

void ReadOptions(EmulateCommand& command, OptionValues& values) {
  command.kinetrelOptions = std::string("--device ") + command.row->kinetrelName;
  LineOptions& line = command.options.line;
  line.baud = values.Get("--baud", command.row->baud, 50U, 4'000'000U);
  line.seed = values.Get<std::uint64_t>("--seed", 1, 0, UINT64_MAX);
  line.whole = values.Has("--whole");
  line.jitter = Moment(std::llround(values.Get("--jitter", 0.0, 0.0, 1000.0) * 1e6));
  line.clockPpm = values.Get("--clock-ppm", 0.0, -100'000.0, 100'000.0);
  command.usb = values.Has("--usb");
  if (command.usb) {
    if (command.row->usb == nullptr) values.Refuse("--usb: this device has no USB");
    line.baud = kUsbRate;
  }
  command.port = values.Text("--port", "");
  line.wired = !command.port.empty();
  for (const char* const ofTerminal : {"--link", "--usb", "--whole"}) {
    if (line.wired && values.Has(ofTerminal)) {
      values.Refuse(std::string(ofTerminal) + ": goes without --port");
    }
  }
  ReadFaults(values, line);
  command.options.link = values.Text("--link", "");
  command.show = values.Has("--show");
  if (values.Has("--from")) {
    ReadSource(command, values);
  } else {
    const MadeMotion motion = ParseMotion(values.Text("--motion", "circle"));
    if (!motion.motion) values.Refuse(motion.complaint);
    command.motion = motion.motion ? WithNoise(values, motion.motion, line.seed) : nullptr;
    RefusePace(values);
    if (values.Has("--sensors")) values.Refuse("--sensors: goes with --from");
  }
  if (values.complaint().empty()) command.device = command.row->make(values, command.motion);
}

// A device is a subcommand. The options of every device are those of `app`: they may stand before
// or behind the device.
void AddDevices(CLI::App& app) {
  app.fallthrough();
  for (const DeviceRow& row : Devices()) {
    CLI::App* const device = app.add_subcommand(std::string(row.name), std::string(row.summary));
    device->group("Devices")->footer("kinetrel-emulate --help lists the options of every device.");
    AddOptions(*device, row.options(), "Options");
  }
}

}  // namespace

EmulateCommand ParseEmulateCommand(int count, const char* const* arguments) {
  EmulateCommand command;
  ToolCommandLine app("kinetrel-emulate", kAbout, kFaultHelp);
  AddOptions(app, kCommonOptions, "Options of every device");
  AddDevices(app);
  AddReplay(app);
  app.require_subcommand(0, 1);
  command.ending = count > 1 ? app.Read(count, arguments) : Ending{0, app.help()};
  const auto chosen = app.get_subcommands();
  if (chosen.empty() && !(command.ending && command.ending->exitCode == 0)) {
    const auto unknown = app.remaining();
    const std::string why =
        unknown.empty() ? "name a device" : "there is no device '" + unknown.front() + "'";
    command.ending = app.Mistake(why + "; the devices are " + DeviceNames());
  }
  if (command.ending) return command;
  command.row = FindDevice(chosen.front()->get_name());
  OptionValues& values = command.values;
  values.Take(app);
  values.Take(*chosen.front());
  if (command.row != nullptr) {
    ReadOptions(command, values);
  } else {
    ReadReplay(command, values, chosen.front()->get_option("FILE")->as<std::string>());
  }
  if (!values.complaint().empty()) command.ending = app.Mistake(values.complaint());
  return command;
}

}  // namespace kinetrel::emulate

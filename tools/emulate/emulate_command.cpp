#include "emulate/emulate_command.h"

#include <algorithm>

namespace kinetrel {
namespace {

constexpr OptionRow kCommonOptions[] = {
    {"--link", "PATH", "a name for the port that stays when it is unplugged and comes back"},
    {"--motion", "MOTION",
     "circle[:RADIUS_CM[,PERIOD_S]] (the usual one), ramp, file:CSV, or\n"
     "hold:X,Y,Z[,AZIMUTH,ELEVATION,ROLL] (cm, degrees)"},
    {"--fault", "WHAT@WHEN", "a fault and when it strikes, see below; repeatable"},
    {"--seed", "NUMBER", "of chance and noise: the same seed, the same faults (1)"},
    {"--baud", "RATE", "of the line (as the device has it)"},
    {"--whole", "", "a record is handed over in one piece, as by a USB adapter"},
    {"--show", "", "what the host sends, in words"},
    {"--help", "", "this"},
};

constexpr const char* kIntroduction =
    "usage: kinetrel-emulate DEVICE [OPTION]...\n\n"
    "Is a tracker at the other end of a serial line: opens a pseudo-terminal, prints its name and\n"
    "how to start kinetrel on it, and answers there as the device would, at its own rate and at\n"
    "the line's speed. Ctrl-C ends it.\n\n";

constexpr const char* kFaultHelp =
    "\nFaults, what and when:\n"
    "  noise[:BYTES]       random bytes between the records\n"
    "  garble[:BYTES]      random bytes in a record\n"
    "  cut[:BYTES]         of a record only so many bytes\n"
    "  silence[:SECONDS]   nothing comes\n"
    "  error[:CODE]        the device reports an error of its own\n"
    "  restart             the device loses its power for a moment\n"
    "  unplug[:SECONDS]    the port is gone, and comes back\n"
    "  @5s @/5s            at 5 s, every 5 s\n"
    "  @#100 @/#100        at the 100th record, every 100th\n"
    "  @1%                 with this chance for each record\n"
    "  @usr1 @usr2         at the signal SIGUSR1, SIGUSR2\n"
    "On a terminal the keys n g c s e r u bring one at once.\n"
    "  kinetrel-emulate fastrak --fault silence:1@/20s --fault garble@0.5% --fault unplug@usr1\n";

std::string DeviceList() {
  std::string text = "Devices:\n";
  for (const DeviceRow& row : Devices()) {
    std::string left = "  " + std::string(row.name);
    left.resize(std::max<std::size_t>(left.size() + 2, 16), ' ');
    text += left + std::string(row.summary) + "\n";
  }
  return text;
}

std::string Help(const DeviceRow* row) {
  std::string text = kIntroduction;
  if (row == nullptr) {
    text += DeviceList() + "kinetrel-emulate DEVICE --help tells the device's own options.\n";
  } else {
    text += std::string(row->name) + ": " + std::string(row->summary) + "\n" +
            DescribeOptions(row->options());
  }
  return text + "\nOptions of every device:\n" + DescribeOptions(kCommonOptions) + kFaultHelp;
}

void ReadFaults(OptionValues& values, LineOptions& line) {
  for (const std::string& text : values.All("--fault")) {
    if (const auto rule = ParseFaultRule(text)) {
      line.faults.push_back(*rule);
    } else {
      values.Refuse("--fault wants WHAT@WHEN, not '" + text + "'");
    }
  }
}

void ReadOptions(EmulateCommand& command, OptionValues& values) {
  LineOptions& line = command.options.line;
  line.baud = values.Get("--baud", command.row->baud, 50U, 4'000'000U);
  line.seed = values.Get<std::uint64_t>("--seed", 1, 0, UINT64_MAX);
  line.whole = values.Has("--whole");
  ReadFaults(values, line);
  command.options.link = values.Text("--link", "");
  command.show = values.Has("--show");
  const MadeMotion motion = ParseMotion(values.Text("--motion", "circle"));
  if (!motion.motion) return values.Refuse(motion.complaint);
  command.device = command.row->make(values, motion.motion);
}

EmulateCommand Refused(std::string complaint) {
  return {EmulateRequest::Refuse, std::move(complaint)};
}

}  // namespace

EmulateCommand ParseEmulateCommand(std::span<const char* const> arguments) {
  const std::string_view first = arguments.empty() ? "--help" : arguments[0];
  if (first == "--help" || first == "-h") return {EmulateRequest::Help, Help(nullptr)};
  EmulateCommand command;
  command.row = FindDevice(first);
  if (command.row == nullptr) {
    return Refused("there is no device '" + std::string(first) + "'\n" + DeviceList());
  }
  OptionValues values =
      OptionValues::Parse(arguments.subspan(1), {kCommonOptions, command.row->options()});
  if (values.Has("--help")) return {EmulateRequest::Help, Help(command.row)};
  ReadOptions(command, values);
  if (!values.complaint().empty()) return Refused(values.complaint());
  return command;
}

std::string HowToConnect(const DeviceRow& row, const std::string& port) {
  return "KINETREL_COM1=" + port + " kinetrel -d " + std::to_string(row.kinetrelType);
}

}  // namespace kinetrel

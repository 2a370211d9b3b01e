// kinetrel-emulate: plays a tracker at the other end of a serial line.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "emulate/device_table.h"
#include "emulate/emulator.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/signals.h"

namespace kinetrel::emulate {
namespace {

// ---- The command line ---------------------------------------------------------------------------

// USB is so fast that a record is out at once.
constexpr unsigned kUsbRate = 4'000'000'000;

enum class EmulateRequest { Emulate, Help, Refuse };

struct EmulateCommand {
  EmulateRequest request = EmulateRequest::Emulate;
  std::string text = {};  // the help, or why it is refused
  const DeviceRow* row = nullptr;
  std::unique_ptr<EmulatedDevice> device = {};
  EmulatorOptions options = {};
  bool show = false;
  bool usb = false;
  std::shared_ptr<UsbBus> bus = {};  // made when the emulation starts
};

constexpr OptionRow kCommonOptions[] = {
    {"--link", "PATH", "a name for the port that stays the same when the port is unplugged"},
    {"--motion", "MOTION",
     "circle[:RADIUS_CM[,PERIOD_S]] (default), ramp, file:CSV, or\n"
     "hold:X,Y,Z[,AZIMUTH,ELEVATION,ROLL] (cm, degrees)"},
    {"--fault", "WHAT@WHEN", "a fault and when it occurs, see below; repeatable"},
    {"--seed", "NUMBER", "seed of chance and noise: the same seed gives the same faults (1)"},
    {"--baud", "RATE", "baud rate of the line (default: that of the device)"},
    {"--whole", "", "hand over each record in one piece, as a USB adapter does"},
    {"--usb", "", "play it on USB instead, for hosts with the environment that is printed"},
    {"--show", "", "show what the host sends, in words"},
    {"--help", "", "print this text and end"},
};

constexpr const char* kIntroduction =
    "usage: kinetrel-emulate DEVICE [OPTION]...\n\n"
    "Plays a tracker at the other end of a serial line: opens a pseudo-terminal, prints its name "
    "and\n"
    "how to start kinetrel on it, and answers there as the device would, at its own rate and at\n"
    "the line's speed. Ctrl-C ends it.\n\n";

constexpr const char* kFaultHelp =
    "\nFaults, and when they occur:\n"
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
    text += DeviceList() + "kinetrel-emulate DEVICE --help lists the device's own options.\n";
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
  command.usb = values.Has("--usb");
  if (command.usb) {
    if (command.row->usb == nullptr) values.Refuse("this device has no USB: --usb");
    line.baud = kUsbRate;
  }
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

// `arguments` without the program's name.
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

// The lines that start kinetrel on this device.
std::string HowToConnect(const EmulateCommand& command, const std::string& port) {
  const DeviceRow& row = *command.row;
  if (command.bus) {
    std::string text;
    for (const auto& [name, value] : command.bus->Environment()) {
      text.append(name).append("=").append(value).append(" ");
    }
    return text + "kinetrel -d " + std::to_string(row.kinetrelType) + " -p " + port;
  }
  return "KINETREL_COM1=" + port + " kinetrel -d " + std::to_string(row.kinetrelType);
}

// ---- Running ------------------------------------------------------------------------------------

enum class ExitCode : int { Done = 0, CannotOpen = 1, BadArguments = 2 };

// Lines on their way from the emulator to a terminal that may be slow. A host that polls repeats
// the same command: repeats are counted and shown once a second.
class Lines {
 public:
  void Put(Moment now, const std::string& text) {
    const std::lock_guard lock(mutex_);
    if (text == last_ && now < toldAt_ + std::chrono::seconds(1)) {
      ++repeats_;
      return;
    }
    TellRepeats();
    char time[32];
    std::snprintf(time, sizeof time, "%12.6f  ", static_cast<double>(now.count()) * 1e-9);
    Queue(time + text);
    last_ = text;
    toldAt_ = now;
  }

  void Print() {
    std::deque<std::string> lines;
    {
      const std::lock_guard lock(mutex_);
      lines.swap(waiting_);
    }
    for (const std::string& line : lines) std::puts(line.c_str());
    if (lines.size() == kMostWaiting) std::puts("(some lines are missing)");
    if (!lines.empty()) std::fflush(stdout);
  }

 private:
  static constexpr std::size_t kMostWaiting = 1000;

  void Queue(std::string line) {
    if (waiting_.size() < kMostWaiting) waiting_.push_back(std::move(line));
  }

  void TellRepeats() {
    if (repeats_ == 0) return;
    Queue(std::string(14, ' ') + "(the same " + std::to_string(repeats_) + " more times)");
    repeats_ = 0;
  }

  std::mutex mutex_;  // guards all below
  std::deque<std::string> waiting_;
  std::string last_;
  Moment toldAt_{0};
  unsigned repeats_ = 0;
};

struct FaultKey {
  char key;
  const char* fault;
};
constexpr FaultKey kFaultKeys[] = {{'n', "noise"},   {'g', "garble"}, {'c', "cut"},
                                   {'s', "silence"}, {'e', "error"},  {'r', "restart"},
                                   {'u', "unplug"}};

void ServeKeys(Emulator& emulator) {
  while (const auto key = TakeKey()) {
    for (const FaultKey& row : kFaultKeys) {
      if (key->extended || key->code != row.key) continue;
      std::printf("%s\n", row.fault);
      if (const auto fault = ParseFault(row.fault)) emulator.Strike(*fault);
    }
  }
}

void ServeSignals(Emulator& emulator, UserSignals& signals) {
  while (const auto signal = signals.Take()) {
    emulator.StrikeAll(*signal == UserSignal::First ? FaultTrigger::ByFirst
                                                    : FaultTrigger::BySecond);
  }
}

void TellPort(const EmulateCommand& command, const std::string& port) {
  std::printf("  %s\n", HowToConnect(command, port).c_str());
  std::fflush(stdout);
}

void Serve(const EmulateCommand& command, Emulator& emulator, UserSignals& signals, Lines& lines,
           const std::atomic<int>& stop) {
  const KeySession keys;
  std::string told = emulator.Port();
  while (stop == 0) {
    ServeKeys(emulator);
    ServeSignals(emulator, signals);
    lines.Print();
    const std::string port = emulator.Port();
    if (!port.empty() && port != told) {
      std::printf("The port has a new name:\n");
      TellPort(command, told = port);
    }
    SleepFor(Milliseconds(20));
  }
  lines.Print();
  std::printf("%llu records sent, %llu bytes lost because no host read them\n",
              static_cast<unsigned long long>(emulator.RecordsSent()),
              static_cast<unsigned long long>(emulator.BytesLost()));
}

ExitCode CannotOpen(const Status& status) {
  std::fprintf(stderr, "kinetrel-emulate: %s\n", Describe(status).c_str());
  return ExitCode::CannotOpen;
}

Status PlugIntoUsb(EmulateCommand& command, std::unique_ptr<DevicePort>& port) {
  auto bus = UsbBus::Make();
  if (!bus.Ok()) return bus.status();
  auto attached = (*bus)->Attach(1, *command.row->usb);
  if (!attached.Ok()) return attached.status();
  command.bus = std::move(*bus);
  port = std::move(*attached);
  return {};
}

ExitCode Emulate(EmulateCommand command) {
  // Never deleted: a late signal may still store into it.
  std::atomic<int>& stop = *new std::atomic<int>(0);
  CatchStopSignals(stop);
  UserSignals signals;
  Lines lines;
  if (command.show) {
    command.options.line.show = [&lines](Moment now, const std::string& t) { lines.Put(now, t); };
  }
  const std::string name = command.device->Name();
  const unsigned baud = command.options.line.baud;
  std::unique_ptr<DevicePort> port;
  if (command.usb) {
    if (const Status plugged = PlugIntoUsb(command, port); !plugged.Ok())
      return CannotOpen(plugged);
  }
  auto emulator =
      EmulatorThread::Start(std::move(command.device), command.options, std::move(port));
  if (!emulator.Ok()) {
    return CannotOpen(emulator.status());
  }
  const std::string rate = command.usb ? "" : " at " + std::to_string(baud) + " baud";
  std::printf("%s%s on %s. In another terminal:\n", name.c_str(), rate.c_str(),
              (*emulator)->Port().c_str());
  TellPort(command, (*emulator)->Port());
  Serve(command, **emulator, signals, lines, stop);
  return ExitCode::Done;
}

}  // namespace
}  // namespace kinetrel::emulate

int main(int count, char** arguments) {
  using namespace kinetrel::emulate;
  kinetrel::HoldStandardStreams();
  EmulateCommand command = ParseEmulateCommand(
      std::span(arguments + 1, static_cast<std::size_t>(count > 0 ? count - 1 : 0)));
  switch (command.request) {
    case EmulateRequest::Help:
      std::fputs(command.text.c_str(), stdout);
      return static_cast<int>(ExitCode::Done);
    case EmulateRequest::Refuse:
      std::fprintf(stderr, "kinetrel-emulate: %s (see kinetrel-emulate --help)\n",
                   command.text.c_str());
      return static_cast<int>(ExitCode::BadArguments);
    case EmulateRequest::Emulate:
      return static_cast<int>(Emulate(std::move(command)));
  }
}

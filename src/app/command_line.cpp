#include "app/command_line.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "app/config_file.h"
#include "app/option_table.h"
#include "devices/device_types.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

constexpr int kTooManyArguments = 99;

std::string Quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

// ---- From arguments to options ------------------------------------------------------------------

// One option of the command line with its value.
struct Given {
  const OptionRow* row = nullptr;  // null: `complaint` says why
  std::string name;                // as the user wrote it, with the dashes
  bool isLetter = false;
  std::string value;
  std::string complaint;
  std::string_view refusedValue;  // an argument that would be the value if it were no option
};

bool BeginsOption(const char* argument) { return argument[0] == '-' || argument[0] == '/'; }

Given TakeLetter(int count, const char* const* arguments, int& at) {
  const std::string argument = arguments[at++];
  Given given;
  given.name = argument;
  given.isLetter = true;
  if (!BeginsOption(argument.c_str())) {
    given.complaint = Quoted(argument) + " is not an option: options begin with - or --.";
    return given;
  }
  given.row = argument.size() < 2 ? nullptr : FindOption(argument[1]);
  if (given.row == nullptr) {
    given.complaint = Quoted(argument) + " is not an option.";
    return given;
  }
  given.name = argument.substr(0, 2);
  given.value = argument.substr(2);
  if (!given.value.empty() || at == count) return given;
  // The next argument is the value, even if the option then ignores it.
  if (BeginsOption(arguments[at])) {
    given.refusedValue = arguments[at];
  } else {
    given.value = arguments[at++];
  }
  return given;
}

std::string NoSuchOption(const std::string& name, Audience audience) {
  const std::string nearest = NearestOption(std::string_view(name).substr(2), audience);
  return name + " is not an option" +
         (nearest.empty() ? "." : "; the nearest one is --" + nearest + ".");
}

// Takes --name or --no-name. Returns false for any other argument.
bool TakeSwitch(Given& given, std::string_view name, Audience audience) {
  constexpr std::string_view kNo = "no-";
  given.row = FindOption(name, audience);
  given.value = "true";
  if (given.row == nullptr && name.starts_with(kNo)) {
    given.row = FindOption(name.substr(kNo.size()), audience);
    given.value = "false";
    if (given.row != nullptr && given.row->read == nullptr) given.row = nullptr;
  }
  const bool isSwitch = given.row != nullptr && given.row->value.empty();
  if (!isSwitch) given.row = nullptr;
  return isSwitch;
}

Given TakeLong(int count, const char* const* arguments, int& at, Audience audience) {
  const std::string_view argument = arguments[at++];
  const std::size_t equals = argument.find('=');
  const bool joined = equals != std::string_view::npos;
  Given given;
  given.name = argument.substr(0, equals);
  const std::string_view name = std::string_view(given.name).substr(2);
  if (TakeSwitch(given, name, audience)) {
    if (!joined) return given;
    given.complaint = given.name + " takes no value.";
    given.row = nullptr;
    return given;
  }
  given.row = FindOption(name, audience);
  if (given.row == nullptr) {
    given.complaint = NoSuchOption(given.name, audience);
  } else if (joined) {
    given.value = argument.substr(equals + 1);
  } else if (at < count) {
    given.value = arguments[at++];
  } else {
    given.complaint = given.name + " wants " + std::string(given.row->expects) + '.';
    given.row = nullptr;
  }
  return given;
}

// Ends with the first argument that is not an option.
std::vector<Given> Options(Audience audience, int count, const char* const* arguments) {
  std::vector<Given> all;
  for (int at = 1; at < count && (all.empty() || all.back().row != nullptr);) {
    const bool isLong = std::string_view(arguments[at]).starts_with("--");
    all.push_back(isLong ? TakeLong(count, arguments, at, audience)
                         : TakeLetter(count, arguments, at));
  }
  return all;
}

// ---- Applying them ------------------------------------------------------------------------------

std::string LetterComplaint(const Given& given) {
  std::string text = given.name + " wants " + std::string(given.row->letterExpects);
  if (!given.value.empty()) text += ", not " + Quoted(given.value);
  if (!given.refusedValue.empty()) {
    text += "; " + Quoted(given.refusedValue) + " is taken for another option";
  }
  text += '.';
  if (given.row->name.empty() || given.row->expects == given.row->letterExpects) return text;
  return text + " --" + std::string(given.row->name) + " wants " + std::string(given.row->expects) +
         '.';
}

// Empty: applied, or ignored with a message of its own.
std::string Apply(const Given& given, Settings& settings) {
  if (given.row == nullptr) return given.complaint;
  if (given.isLetter) {
    const bool rejected = given.row->readLetter(settings, given.value) == Outcome::Rejected;
    return rejected ? LetterComplaint(given) : "";
  }
  std::string why;
  if (given.row->read == nullptr || given.row->read(settings, given.value, why)) return "";
  if (!why.empty()) return given.name + ": " + why;
  return given.name + " wants " + std::string(given.row->expects) + ", not " + Quoted(given.value) +
         '.';
}

std::string ApplyFile(const std::vector<Given>& options, Settings& settings, Audience audience) {
  const auto isConfig = [](const Given& given) {
    return given.row != nullptr && given.row->name == "config";
  };
  if (std::ranges::count_if(options, isConfig) > 1) return "--config may be given once.";
  const auto config = std::ranges::find_if(options, isConfig);
  std::string complaints;
  if (config != options.end()) {
    ReadConfigFile(settings, audience, config->value, complaints);
  }
  return complaints;
}

// Ends with the first complaint. `isLetter` tells what it is about.
std::string ApplyAll(const std::vector<Given>& options, Settings& settings, bool& isLetter) {
  const bool hasFile = std::ranges::any_of(options, [](const Given& given) {
    return given.row != nullptr && given.row->name == "config";
  });
  std::vector<const OptionRow*> seen;
  for (const Given& given : options) {
    const bool isFirst = std::ranges::count(seen, given.row) == 0;
    seen.push_back(given.row);
    if (hasFile && isFirst && given.row != nullptr && given.row->forget != nullptr) {
      given.row->forget(settings);
    }
    std::string complaint = Apply(given, settings);
    isLetter = given.isLetter;
    if (!complaint.empty()) return complaint;
  }
  return "";
}

bool UsesLongNames(const std::vector<Given>& options) {
  return std::ranges::any_of(options, [](const Given& given) { return !given.isLetter; });
}

// Settings that are correct and cannot work together. Letters alone go on as ever.
std::string Contradiction(const StartConfig& config) {
  struct Reach {
    int deviceType;
    bool usb;
    bool path;
  };
  constexpr Reach kReaches[] = {{1, false, true},  {2, true, true},  {3, false, true},
                                {4, false, true},  {6, true, false}, {9, false, true},
                                {10, true, false}, {12, false, true}};
  const auto* const reach = std::ranges::find(kReaches, config.deviceType, &Reach::deviceType);
  const DeviceTypeName* const device = FindDeviceType(config.deviceType);
  if (reach == std::end(kReaches) || device == nullptr) return "";
  if (config.port == StartConfig::kUsbPort && !reach->usb) {
    return "--device " + std::string(device->name) +
           " is not on USB: --port wants a COM number or a path.";
  }
  if (config.port == StartConfig::kNamedPort && !reach->path) {
    return "--device " + std::string(device->name) +
           " goes through a library, which wants a COM number, not a path. KINETREL_COM1=" +
           config.portName + " makes it COM1.";
  }
  return "";
}

// The words and their order are kept for compatibility.
void PrintUsage(const char* program, const StartConfig& config) {
  constexpr const char* kSyncNames[] = {"Internal", "External", "CRT"};
  const char* const sync = kSyncNames[std::clamp(config.sync, 0, 2)];
  PrintError("\n\nUSAGE: %s [-flag <param>] ...", program);
  PrintError("\n\t-a {X1,Y1,Z1;X2,Y2,Z2}   \tAlignment frame: <1,0,0;0,1,0>");
  PrintError("\n\t-c {CMPMASK} \tComponent mask: bit0=CART, bit1=EULER, bit2=QUAT <0x03>");
  PrintError("\n\t-d {DEVTYPE} \tDevice type <Polhemus>");
  PrintError("\n\t             \t(1=FKS, 2=PLH/INS, 3=ASC, 4=LGT, 6=ITS, ");
  PrintError("\n\t             \t 8=OTJ, 9=TRX, 10=PDI, 11=RLY, 12=GSP)");
  PrintError("\n\t-h {X,Y,Z}   \tHemisphere zenith: <1,0,0>");
  PrintError("\n\t-j {JOYPORT} \tJoystick sampling: <0>");
  // "Sychronization" is kept for compatibility.
  PrintError("\n\t-k (SYNCTYP) \tSychronization 0=int, 1=ext, 2=crt: <%s>", sync);
  PrintError("\n\t-o {X,Y,Z}   \tTransmitter offset: <0,0,0>");
  PrintError("\n\t-p {PORTNUM} \tPort: COM number or ISA hex address <COM1>");
  PrintError("\n\t-q {+/-}     \tQuery and report instrument status: <%s>",
             config.query != 0 ? "QUERY" : "NO_REPORT");
  PrintError("\n\t-r {1/0}     \tRoll all sensors or not: <0>");
  PrintError("\n\t-s {SNRMASK} \tSensor mask: <0x01>");
  PrintError("\n\t-u {UNITSCL} \tUnits: 0 = INCH, 1 = CM, 2 = METER <CM>");
  PrintError("\n\t-w {SHMEMID} \tShared Memory ID to write: <same as port>");
  PrintError("\n\t-z {+/-}     \tStreaming(+) vs. polled(-): <%s>",
             config.streaming != 0 ? "streaming" : "polled");
}

// Without the usage after a long option: there the complaint says it all.
void PrintComplaint(const std::string& complaint, Audience audience) {
  if (PrintsForJournal()) {
    PrintJournalLine(JournalLevel::Error, complaint);
  } else {
    PrintError("\n\t%s", complaint.c_str());
  }
  if (audience != Audience::Host) PrintError("\n\t%s --help lists the options.", NameOf(audience));
}

}  // namespace

Request RequestOf(Audience audience, int count, const char* const* arguments) {
  for (const Given& given : Options(audience, count, arguments)) {
    if (given.row == nullptr || given.row->read != nullptr) continue;
    if (given.row->name == "help") return Request::Help;
    if (given.row->name == "version") return Request::Version;
    if (given.row->name == "print-config") return Request::PrintConfig;
    if (given.row->name == "check-config") return Request::CheckConfig;
  }
  return Request::Run;
}

bool ParseCommandLine(Settings& settings, Audience audience, int count,
                      const char* const* arguments, std::string& complaint) {
  if (count > 1) PrintError("\nProcessing command line arguments ...");
  const std::vector<Given> options = Options(audience, count, arguments);
  bool isLetter = false;
  complaint = ApplyFile(options, settings, audience);
  if (complaint.empty()) complaint = ApplyAll(options, settings, isLetter);
  if (complaint.empty() && UsesLongNames(options)) complaint = Contradiction(settings.start);
  if (!settings.program.ignoredFile.empty()) {
    PrintError("\nDon't know how to read Configuration file \"%s\".",
               settings.program.ignoredFile.c_str());
  }
  if (complaint.empty() && count >= kTooManyArguments) complaint = "At most 97 arguments.";
  if (!complaint.empty() && isLetter) {
    PrintUsage(count > 0 ? arguments[0] : "kinetrel", settings.start);
    PrintError("\n");
  }
  if (!complaint.empty()) PrintComplaint(complaint, audience);
  PrintOutput("\n");
  if (!settings.start.captureFile.empty()) {
    settings.start.captureOptions = ConfigText(settings, audience);
  }
  return complaint.empty();
}

}  // namespace kinetrel

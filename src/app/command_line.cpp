#include "app/command_line.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devices/pose.h"
#include "engine/start_config.h"
#include "filters/filter_spec.h"
#include "platform/console.h"
#include "publish/shared_track_block.h"

namespace kinetrel {
namespace {

constexpr int kTooManyArguments = 99;
constexpr int kHighestDeviceType = 13;
constexpr int kHighestComPort = 16;
constexpr std::array<const char*, 3> kSyncNames = {"Internal", "External", "CRT"};

// The result of one option.
enum class Outcome {
  Applied,
  Ignored,  // reported, without effect
  Rejected  // ends the parsing
};

struct Options {
  StartConfig& config;
  std::string configurationFile;
};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool BeginsOption(const char* argument) { return argument[0] == '-' || argument[0] == '/'; }

// Reads a whole decimal number from the start of `value`, at most the largest int. False unless
// `value` begins with a digit.
bool ReadNumber(const std::string& value, int& number) {
  if (value.empty() || !IsDigit(value[0])) return false;
  const long read = std::strtol(value.c_str(), nullptr, 10);
  number = static_cast<int>(std::min<long>(read, std::numeric_limits<int>::max()));
  return true;
}

// Reads up to six finite numbers of the form a,b,c;d,e,f and returns how many. Returns 0 unless the
// first or the second character is a digit.
int ReadVectors(const std::string& value, std::array<float, 6>& numbers) {
  const bool begins =
      !value.empty() && (IsDigit(value[0]) || (value.size() > 1 && IsDigit(value[1])));
  if (!begins) return 0;
  auto& n = numbers;
  const int count =
      std::sscanf(value.c_str(), "%f,%f,%f;%f,%f,%f", &n[0], &n[1], &n[2], &n[3], &n[4], &n[5]);
  const auto finite =
      std::find_if_not(n.begin(), n.end(), [](float x) { return std::isfinite(x); });
  return std::min(count, static_cast<int>(finite - n.begin()));
}

// ---- One function per option -----------------------------------------------------------------

Outcome SetAlignment(Options& options, const std::string& value) {
  std::array<float, 6> n{};
  if (ReadVectors(value, n) < 6) {
    PrintError("\n\tOffsets (%s) ill-formed.", value.c_str());
    return Outcome::Rejected;
  }
  std::copy_n(n.begin(), 3, options.config.alignX.begin());
  std::copy_n(n.begin() + 3, 3, options.config.alignY.begin());
  PrintError("\n\tReference frame aligned to <%.3f,%.3f,%.3f;%.3f,%.3f,%.3f>.", n[0], n[1], n[2],
             n[3], n[4], n[5]);
  return Outcome::Applied;
}

Outcome SetComponents(Options& options, const std::string& value) {
  int mask = 0;
  if (!ReadNumber(value, mask)) return Outcome::Rejected;
  options.config.componentMask = static_cast<unsigned>(mask) & 0xF;
  const auto name = [mask](int bit, const char* text) {
    return (mask >> bit & 1) != 0 ? text : "--";
  };
  PrintError("\n\tComponents set to %s | %s | %s.", name(0, "CART"), name(1, "EULER"),
             name(2, "QUAT"));
  return Outcome::Applied;
}

Outcome SetDeviceType(Options& options, const std::string& value) {
  int type = 0;
  if (!ReadNumber(value, type)) return Outcome::Rejected;
  if (type > kHighestDeviceType) {
    PrintError("\n\tDevice type (%d) is invalid.", type);
    return Outcome::Ignored;
  }
  options.config.deviceType = type;
  PrintError("\n\tDevice type set to %d.", type);
  return Outcome::Applied;
}

Outcome SetHemisphere(Options& options, const std::string& value) {
  std::array<float, 6> n{};
  if (ReadVectors(value, n) < 3) {
    PrintError("\n\tHemisphere zenith vector (%s) ill-formed.", value.c_str());
    return Outcome::Rejected;
  }
  std::copy_n(n.begin(), 3, options.config.hemisphere.begin());
  PrintError("\n\tHemisphere zenith vectored to <%.1f,%.1f,%.1f>.", n[0], n[1], n[2]);
  return Outcome::Applied;
}

Outcome SetConfigurationFile(Options& options, const std::string& value) {
  if (value.empty()) return Outcome::Rejected;
  options.configurationFile = value;
  PrintError("\n\tInitial configuration to be read from %s", value.c_str());
  return Outcome::Applied;
}

Outcome SetJoystick(Options& options, const std::string& value) {
  int port = 0;
  if (!ReadNumber(value, port)) return Outcome::Rejected;
  options.config.joystickPort = port & 15;
  if (options.config.joystickPort != 0) {
    PrintError("\n\tJoystick enabled on port %d.", options.config.joystickPort);
  } else {
    PrintError("\n\tJoystick disabled.");
  }
  return Outcome::Applied;
}

Outcome SetSync(Options& options, const std::string& value) {
  int sync = 0;
  if (!ReadNumber(value, sync)) return Outcome::Rejected;
  if (sync >= static_cast<int>(kSyncNames.size())) {
    PrintError("\n\tGiven sync type (%d) is not recognized.", sync);
    return Outcome::Ignored;
  }
  options.config.sync = sync;
  PrintError("\n\tSynchronization set to %s.", kSyncNames[static_cast<std::size_t>(sync)]);
  return Outcome::Applied;
}

Outcome SetOffset(Options& options, const std::string& value) {
  std::array<float, 6> n{};
  const int count = ReadVectors(value, n);
  if (count < 3) {
    PrintError("\n\tOffsets (%s) ill-formed.", value.c_str());
    return Outcome::Rejected;
  }
  auto& offset = options.config.transmitterOffset;
  std::copy_n(n.begin(), 3, offset.begin());
  PrintError("\n\tTransmitter origin offset to <%.3f,%.3f,%.3f>.", n[0], n[1], n[2]);
  if (count < 6) return Outcome::Applied;
  for (std::size_t i = 3; i < 6; ++i) offset[i] = static_cast<float>(n[i] * kRadiansPerDegree);
  PrintError("\n\tTransmitter orientation offset to <%.3f,%.3f,%.3f>.",
             offset[3] * kDegreesPerRadian, offset[4] * kDegreesPerRadian,
             offset[5] * kDegreesPerRadian);
  return Outcome::Applied;
}

// "usb:", a bus, '-', and the ports on the way, with '.' between them.
bool IsUsbUnit(std::string_view value) {
  constexpr std::string_view kScheme = "usb:";
  constexpr std::size_t kMostDigits = 3;
  if (!value.starts_with(kScheme)) return false;
  value.remove_prefix(kScheme.size());
  for (char separator = '-';; separator = '.') {
    const std::size_t digits = std::min(value.find_first_not_of("0123456789"), value.size());
    if (digits == 0 || digits > kMostDigits) return false;
    value.remove_prefix(digits);
    if (value.empty()) return separator == '.';  // at least one port
    if (value.front() != separator) return false;
    value.remove_prefix(1);
  }
}

Outcome SetUsbPort(Options& options, const std::string& value) {
  const bool named = value.find(':') != std::string::npos;
  if (named && !IsUsbUnit(value)) {
    PrintError("\n\tUSB unit (%s) ill-formed: usb:BUS-PORT, such as usb:1-2.3.", value.c_str());
    return Outcome::Rejected;
  }
  options.config.port = StartConfig::kUsbPort;
  options.config.usbUnit = named ? value : "";
  PrintError("\n\tDevice port set to USB%s%s.", named ? ", unit " : "",
             options.config.usbUnit.c_str());
  return Outcome::Applied;
}

Outcome SetPort(Options& options, const std::string& value) {
  if (!value.empty() && (value[0] == 'U' || value[0] == 'u')) return SetUsbPort(options, value);
  int port = 0;
  if (!ReadNumber(value, port)) return Outcome::Rejected;
  options.config.port = port;
  options.config.usbUnit.clear();
  if (port > kHighestComPort) {
    PrintError("\n\tDevice port address set to 0x%X.", static_cast<unsigned>(port));
  } else {
    PrintError("\n\tDevice port set to COM%d.", port);
  }
  return Outcome::Applied;
}

// Every value that does not begin with '-' means on, an empty one too.
int ReadSwitch(const std::string& value) { return !value.empty() && value[0] == '-' ? 0 : 1; }

Outcome SetQuery(Options& options, const std::string& value) {
  options.config.query = ReadSwitch(value);
  PrintError("\n\tInstrument will %sbe queried and reported.",
             options.config.query != 0 ? "" : "NOT ");
  return Outcome::Applied;
}

Outcome SetRoll(Options& options, const std::string& value) {
  int roll = 0;
  if (!ReadNumber(value, roll)) return Outcome::Rejected;
  if (roll > 1) {
    PrintError("\n\tRoll must be 1 or 0.");
    return Outcome::Rejected;
  }
  options.config.rollAll = roll;
  PrintError("\n\tAll Sensors are rolled.");
  return Outcome::Applied;
}

Outcome SetSensors(Options& options, const std::string& value) {
  if (value.empty() || !IsDigit(value[0])) return Outcome::Rejected;
  const unsigned long mask = std::strtoul(value.c_str(), nullptr, 0);
  options.config.sensorMask =
      static_cast<unsigned>(std::min<unsigned long>(mask, std::numeric_limits<unsigned>::max()));
  PrintError("\n\tSensor mask set to 0x%x.", options.config.sensorMask);
  return Outcome::Applied;
}

Outcome SetUnits(Options& options, const std::string& value) {
  int units = 0;
  if (!ReadNumber(value, units)) return Outcome::Rejected;
  units &= 3;
  if (units == 2) units = 3;  // the option counts metres as 2
  options.config.units = units;
  PrintError("\n\tUnits type set to %s.", units == 1 ? "CM" : units == 3 ? "METER" : "INCH");
  return Outcome::Applied;
}

Outcome SetSlot(Options& options, const std::string& value) {
  int slot = 0;
  if (!ReadNumber(value, slot)) return Outcome::Rejected;
  if (slot < 1 || slot > kSharedDevices) {
    PrintError("\n\tSpecified shared memory slot(%d) is out of range(1:%d).", slot, kSharedDevices);
    return Outcome::Ignored;
  }
  options.config.shmDevice = slot - 1;
  PrintError("\n\tTracking data to be written to shared memory slot %d.", slot);
  return Outcome::Applied;
}

Outcome SetStreaming(Options& options, const std::string& value) {
  options.config.streaming = ReadSwitch(value);
  PrintError("\n\tDevice will be %s.", options.config.streaming != 0 ? "streaming" : "polled");
  return Outcome::Applied;
}

struct Option {
  char letter;
  Outcome (*apply)(Options& options, const std::string& value);
};

constexpr Option kOptions[] = {
    {'a', SetAlignment},
    {'c', SetComponents},
    {'d', SetDeviceType},
    {'h', SetHemisphere},
    {'i', SetConfigurationFile},
    {'j', SetJoystick},
    {'k', SetSync},
    {'o', SetOffset},
    {'p', SetPort},
    {'q', SetQuery},
    {'r', SetRoll},
    {'s', SetSensors},
    {'u', SetUnits},
    {'w', SetSlot},
    {'z', SetStreaming},
};

// ---- Long options ----------------------------------------------------------------------------

constexpr std::string_view kFilterOption = "--filter";

// Tries the filters as well, so that a mistake ends the program before it opens the tracker.
bool AddFilters(StartConfig& config, const std::string& value) {
  std::vector<FilterSpec> specs;
  std::string error;
  bool read = false;
  if (value.starts_with('@')) {
    read = ReadFilterFile(value.substr(1), specs, error);
  } else {
    read = ReadFilterSpec(value, specs.emplace_back(), error);
  }
  for (const FilterSpec& spec : specs) read = read && MakeFilter(spec.text, error) != nullptr;
  if (!read) {
    PrintError("\n\tFilter %s: %s", value.c_str(), error.c_str());
    return false;
  }
  for (const FilterSpec& spec : specs) {
    PrintError("\n\tFilter %s for sensors 0x%x.", spec.text.c_str(), spec.sensors);
    config.filters.push_back(spec);
  }
  return true;
}

// Whether the argument at `at` is a long option. Moves `at` past it and its value, and applies it.
std::optional<Outcome> ApplyLongOption(Options& options, int count, const char* const* arguments,
                                       int& at) {
  std::string_view argument = arguments[at];
  if (!argument.starts_with(kFilterOption)) return std::nullopt;
  argument.remove_prefix(kFilterOption.size());
  if (!argument.empty() && argument[0] != '=') return std::nullopt;
  ++at;
  std::string value;
  if (!argument.empty()) {
    value = argument.substr(1);
  } else if (at < count) {
    value = arguments[at++];
  }
  return AddFilters(options.config, value) ? Outcome::Applied : Outcome::Rejected;
}

// ---- Parsing ---------------------------------------------------------------------------------

// Applies the option at `arguments[at]` and moves `at` past it and its value.
Outcome ApplyOption(Options& options, int count, const char* const* arguments, int& at) {
  if (const auto outcome = ApplyLongOption(options, count, arguments, at)) return *outcome;
  const std::string argument = arguments[at++];
  if (!BeginsOption(argument.c_str()) || argument.size() < 2) return Outcome::Rejected;
  const char letter = static_cast<char>(std::tolower(static_cast<unsigned char>(argument[1])));
  const auto* const option = std::find_if(std::begin(kOptions), std::end(kOptions),
                                          [letter](const Option& o) { return o.letter == letter; });
  if (option == std::end(kOptions)) return Outcome::Rejected;
  std::string value = argument.substr(2);
  // The next argument is the value, even if the option then ignores it.
  if (value.empty() && at < count && !BeginsOption(arguments[at])) value = arguments[at++];
  return option->apply(options, value);
}

bool ApplyAll(Options& options, int count, const char* const* arguments) {
  for (int at = 1; at < count;) {
    if (ApplyOption(options, count, arguments, at) == Outcome::Rejected) return false;
  }
  return true;
}

void PrintUsage(const char* program, const StartConfig& config) {
  const char* const sync = kSyncNames[static_cast<std::size_t>(std::clamp(config.sync, 0, 2))];
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
  PrintError("\n\t--filter {NAME:KEY=VALUE,...}\tFilter the poses; see docs/filters.md");
}

}  // namespace

bool ParseCommandLine(StartConfig& config, int count, const char* const* arguments) {
  if (count > 1) PrintError("\nProcessing command line arguments ...");
  Options options{config, {}};
  const bool accepted = ApplyAll(options, count, arguments) && count < kTooManyArguments;
  if (!options.configurationFile.empty()) {
    PrintError("\nDon't know how to read Configuration file \"%s\".",
               options.configurationFile.c_str());
  }
  if (!accepted) PrintUsage(count > 0 ? arguments[0] : "kinetrel", config);
  PrintOutput("\n");
  return accepted;
}

}  // namespace kinetrel

#include "app/option_table.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "app/listen_address.h"
#include "app/option_values.h"
#include "app/toml_text.h"
#include "devices/device_types.h"
#include "devices/pose.h"
#include "filters/filter_option.h"
#include "platform/console.h"
#include "publish/shared_track_block.h"

namespace kinetrel {
namespace {

constexpr int kHighestDeviceType = 13;
constexpr int kHighestComPort = 16;
constexpr std::array<const char*, 3> kSyncNames = {"Internal", "External", "CRT"};

// ---- How letters read ---------------------------------------------------------------------------

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

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

// Every value that does not begin with '-' means on, an empty one too.
bool ReadSign(const std::string& value) { return value.empty() || value[0] != '-'; }

// Exactly `count` numbers as the long options write them.
std::optional<std::vector<double>> ReadExactly(const std::string& value, std::size_t count) {
  auto numbers = ReadNumbers(value);
  return numbers && numbers->size() == count ? numbers : std::nullopt;
}

void CopyTo(std::span<float> to, const double* from) {
  std::transform(from, from + to.size(), to.begin(),
                 [](double value) { return static_cast<float>(value); });
}

// ---- One group per option: store and print; the letter; the long name; the file -----------------

void StoreAlignment(StartConfig& config, const std::array<float, 6>& n) {
  std::copy_n(n.begin(), 3, config.alignX.begin());
  std::copy_n(n.begin() + 3, 3, config.alignY.begin());
  PrintError("\n\tReference frame aligned to <%.3f,%.3f,%.3f;%.3f,%.3f,%.3f>.", n[0], n[1], n[2],
             n[3], n[4], n[5]);
}

Outcome LetterAlignment(Settings& settings, const std::string& value) {
  std::array<float, 6> n{};
  if (ReadVectors(value, n) < 6) {
    PrintError("\n\tOffsets (%s) ill-formed.", value.c_str());
    return Outcome::Rejected;
  }
  StoreAlignment(settings.start, n);
  return Outcome::Applied;
}

bool ReadAlignment(Settings& settings, const std::string& value, std::string&) {
  const auto numbers = ReadExactly(value, 6);
  if (!numbers) return false;
  std::array<float, 6> n{};
  CopyTo(n, numbers->data());
  StoreAlignment(settings.start, n);
  return true;
}

std::string ShowAlignment(const Settings& settings) {
  const StartConfig& config = settings.start;
  return config.Aligned()
             ? '[' + TomlNumbers(config.alignX) + ", " + TomlNumbers(config.alignY) + ']'
             : "";
}

void ForgetAlignments(Settings& settings) {
  for (SensorSettings& each : settings.start.sensors) each.alignment.reset();
}

void StoreComponents(StartConfig& config, unsigned mask) {
  config.componentMask = mask & 0xF;
  const auto name = [mask](int bit, const char* text) {
    return (mask >> bit & 1) != 0 ? text : "--";
  };
  PrintError("\n\tComponents set to %s | %s | %s.", name(0, "CART"), name(1, "EULER"),
             name(2, "QUAT"));
}

Outcome LetterComponents(Settings& settings, const std::string& value) {
  int mask = 0;
  if (!ReadNumber(value, mask)) return Outcome::Rejected;
  StoreComponents(settings.start, static_cast<unsigned>(mask));
  return Outcome::Applied;
}

bool ReadComponents(Settings& settings, const std::string& value, std::string&) {
  const auto mask = ReadComponentMask(value);
  if (mask) StoreComponents(settings.start, *mask);
  return mask.has_value();
}

std::string ShowComponents(const Settings& settings) {
  const unsigned mask = settings.start.componentMask;
  if (mask == 0 || mask > 7) return std::to_string(mask);
  std::vector<std::string> names;
  if ((mask & 1) != 0) names.emplace_back("position");
  if ((mask & 2) != 0) names.emplace_back("angles");
  if ((mask & 4) != 0) names.emplace_back("quaternion");
  return TomlTexts(names);
}

void StoreDeviceType(StartConfig& config, int type) {
  config.deviceType = type;
  PrintError("\n\tDevice type set to %d.", type);
}

// Users took the message alone for a refusal.
void TellDeviceTypeStays(const StartConfig& config) {
  const DeviceTypeName* const row = FindDeviceType(config.deviceType);
  PrintError("\n\t\tThe device type stays %d (%s). kinetrel --help lists the types.",
             config.deviceType, row == nullptr ? "no driver" : std::string(row->name).c_str());
}

Outcome LetterDeviceType(Settings& settings, const std::string& value) {
  int type = 0;
  if (!ReadNumber(value, type)) return Outcome::Rejected;
  if (type > kHighestDeviceType) {
    PrintError("\n\tDevice type (%d) is invalid.", type);
    TellDeviceTypeStays(settings.start);
    return Outcome::Ignored;
  }
  StoreDeviceType(settings.start, type);
  return Outcome::Applied;
}

bool ReadDevice(Settings& settings, const std::string& value, std::string&) {
  const auto type = ReadDeviceType(value);
  if (type) StoreDeviceType(settings.start, *type);
  return type.has_value();
}

std::string ShowDevice(const Settings& settings) {
  const int type = settings.start.deviceType;
  const DeviceTypeName* const row = FindDeviceType(type);
  return row == nullptr ? std::to_string(type) : TomlText(row->name);
}

void StoreHemisphere(StartConfig& config, const float* n) {
  std::copy_n(n, 3, config.hemisphere.begin());
  PrintError("\n\tHemisphere zenith vectored to <%.1f,%.1f,%.1f>.", n[0], n[1], n[2]);
}

Outcome LetterHemisphere(Settings& settings, const std::string& value) {
  std::array<float, 6> n{};
  if (ReadVectors(value, n) < 3) {
    PrintError("\n\tHemisphere zenith vector (%s) ill-formed.", value.c_str());
    return Outcome::Rejected;
  }
  StoreHemisphere(settings.start, n.data());
  return Outcome::Applied;
}

bool ReadHemisphere(Settings& settings, const std::string& value, std::string&) {
  const auto numbers = ReadExactly(value, 3);
  if (!numbers) return false;
  std::array<float, 3> n{};
  CopyTo(n, numbers->data());
  StoreHemisphere(settings.start, n.data());
  return true;
}

std::string ShowHemisphere(const Settings& settings) {
  return TomlNumbers(settings.start.hemisphere);
}

void ForgetHemispheres(Settings& settings) {
  for (SensorSettings& each : settings.start.sensors) each.hemisphere.reset();
}

Outcome LetterConfigurationFile(Settings& settings, const std::string& value) {
  if (value.empty()) return Outcome::Rejected;
  settings.program.ignoredFile = value;
  PrintError("\n\tInitial configuration to be read from %s", value.c_str());
  return Outcome::Applied;
}

void StoreJoystick(StartConfig& config, int port) {
  config.joystickPort = port & 15;
  if (config.joystickPort != 0) {
    PrintError("\n\tJoystick enabled on port %d.", config.joystickPort);
  } else {
    PrintError("\n\tJoystick disabled.");
  }
}

Outcome LetterJoystick(Settings& settings, const std::string& value) {
  int port = 0;
  if (!ReadNumber(value, port)) return Outcome::Rejected;
  StoreJoystick(settings.start, port);
  return Outcome::Applied;
}

bool ReadJoystick(Settings& settings, const std::string& value, std::string&) {
  const auto port = ReadWholeNumber(value, 0, 15);
  if (port) StoreJoystick(settings.start, *port);
  return port.has_value();
}

std::string ShowJoystick(const Settings& settings) {
  return std::to_string(settings.start.joystickPort);
}

void StoreSync(StartConfig& config, int sync) {
  config.sync = sync;
  PrintError("\n\tSynchronization set to %s.", kSyncNames[static_cast<std::size_t>(sync)]);
}

Outcome LetterSync(Settings& settings, const std::string& value) {
  int sync = 0;
  if (!ReadNumber(value, sync)) return Outcome::Rejected;
  if (sync >= static_cast<int>(kSyncNames.size())) {
    PrintError("\n\tGiven sync type (%d) is not recognized.", sync);
    return Outcome::Ignored;
  }
  StoreSync(settings.start, sync);
  return Outcome::Applied;
}

const std::vector<std::string_view>& SyncWords() {
  static const std::vector<std::string_view> words = {"internal", "external", "crt"};
  return words;
}

bool ReadSync(Settings& settings, const std::string& value, std::string&) {
  const auto sync = ReadChoice(value, SyncWords());
  if (sync) StoreSync(settings.start, *sync);
  return sync.has_value();
}

std::string ShowSync(const Settings& settings) {
  return TomlText(SyncWords()[static_cast<std::size_t>(settings.start.sync)]);
}

// count  3: the origin only; 6: the angles too, in degrees.
void StoreOffset(StartConfig& config, const double* n, std::size_t count) {
  auto& offset = config.transmitterOffset;
  CopyTo(std::span(offset).first(3), n);
  PrintError("\n\tTransmitter origin offset to <%.3f,%.3f,%.3f>.", offset[0], offset[1], offset[2]);
  if (count < 6) return;
  for (std::size_t i = 3; i < 6; ++i) offset[i] = static_cast<float>(n[i] * kRadiansPerDegree);
  PrintError("\n\tTransmitter orientation offset to <%.3f,%.3f,%.3f>.",
             offset[3] * kDegreesPerRadian, offset[4] * kDegreesPerRadian,
             offset[5] * kDegreesPerRadian);
}

Outcome LetterOffset(Settings& settings, const std::string& value) {
  std::array<float, 6> n{};
  const int count = ReadVectors(value, n);
  if (count < 3) {
    PrintError("\n\tOffsets (%s) ill-formed.", value.c_str());
    return Outcome::Rejected;
  }
  const std::array<double, 6> numbers = {n[0], n[1], n[2], n[3], n[4], n[5]};
  StoreOffset(settings.start, numbers.data(), static_cast<std::size_t>(count));
  return Outcome::Applied;
}

bool ReadOffset(Settings& settings, const std::string& value, std::string&) {
  const auto numbers = ReadNumbers(value);
  if (!numbers || (numbers->size() != 3 && numbers->size() != 6)) return false;
  StoreOffset(settings.start, numbers->data(), numbers->size());
  return true;
}

std::string ShowOffset(const Settings& settings) {
  const auto& offset = settings.start.transmitterOffset;
  const std::span all(offset);
  std::string degrees;
  for (const float radians : all.last(3)) {
    degrees += (degrees.empty() ? "" : ", ") + TomlDegrees(radians);
  }
  return '[' + TomlNumbers(all.first(3)) + ", [" + degrees + "]]";
}

Outcome LetterUsbPort(StartConfig& config, const std::string& value) {
  const bool named = value.find(':') != std::string::npos;
  if (named && !IsUsbUnit(value)) {
    PrintError("\n\tUSB unit (%s) ill-formed: usb:BUS-PORT, such as usb:1-2.3.", value.c_str());
    return Outcome::Rejected;
  }
  config.port = StartConfig::kUsbPort;
  config.portName = named ? value : "";
  PrintError("\n\tDevice port set to USB%s%s.", named ? ", unit " : "", config.portName.c_str());
  return Outcome::Applied;
}

void StoreNumberedPort(StartConfig& config, int port) {
  config.port = port;
  config.portName.clear();
  if (port > kHighestComPort) {
    PrintError("\n\tDevice port address set to 0x%X.", static_cast<unsigned>(port));
  } else {
    PrintError("\n\tDevice port set to COM%d.", port);
  }
}

Outcome LetterPort(Settings& settings, const std::string& value) {
  if (!value.empty() && (value[0] == 'U' || value[0] == 'u')) {
    return LetterUsbPort(settings.start, value);
  }
  int port = 0;
  if (!ReadNumber(value, port)) return Outcome::Rejected;
  StoreNumberedPort(settings.start, port);
  return Outcome::Applied;
}

bool ReadPort(Settings& settings, const std::string& value, std::string&) {
  const auto port = ReadPortValue(value);
  if (!port) return false;
  StartConfig& config = settings.start;
  if (port->number == StartConfig::kUsbPort) {
    LetterUsbPort(config, port->name.empty() ? "U" : port->name);
  } else if (port->number == StartConfig::kNamedPort) {
    config.port = port->number;
    config.portName = port->name;
    PrintError("\n\tDevice port set to %s.", config.portName.c_str());
  } else {
    StoreNumberedPort(config, port->number);
  }
  return true;
}

std::string ShowPort(const Settings& settings) {
  const StartConfig& config = settings.start;
  if (!config.PortName().empty()) return TomlText(config.PortName());
  if (config.port == StartConfig::kUsbPort) return TomlText("usb");
  if (config.port <= kHighestComPort) return std::to_string(config.port);
  char address[24];
  std::snprintf(address, sizeof address, "\"0x%X\"", static_cast<unsigned>(config.port));
  return address;
}

void StoreQuery(StartConfig& config, bool on) {
  config.query = on ? 1 : 0;
  PrintError("\n\tInstrument will %sbe queried and reported.", on ? "" : "NOT ");
}

Outcome LetterQuery(Settings& settings, const std::string& value) {
  StoreQuery(settings.start, ReadSign(value));
  return Outcome::Applied;
}

bool ReadQuery(Settings& settings, const std::string& value, std::string&) {
  const auto on = ReadBool(value);
  if (on) StoreQuery(settings.start, *on);
  return on.has_value();
}

std::string ShowQuery(const Settings& settings) { return TomlBool(settings.start.query != 0); }

void StoreRoll(StartConfig& config, int roll) {
  config.rollAll = roll;
  PrintError("\n\tAll Sensors are rolled.");  // for 0 too: kept for compatibility
}

Outcome LetterRoll(Settings& settings, const std::string& value) {
  int roll = 0;
  if (!ReadNumber(value, roll)) return Outcome::Rejected;
  if (roll > 1) {
    PrintError("\n\tRoll must be 1 or 0.");
    return Outcome::Rejected;
  }
  StoreRoll(settings.start, roll);
  return Outcome::Applied;
}

bool ReadRoll(Settings& settings, const std::string& value, std::string&) {
  const auto on = ReadBool(value);
  if (!on) return false;
  settings.start.rollAll = *on ? 1 : 0;
  PrintError("\n\tAll Sensors are %srolled.", *on ? "" : "NOT ");
  return true;
}

std::string ShowRoll(const Settings& settings) { return TomlBool(settings.start.rollAll != 0); }

void StoreSensors(StartConfig& config, unsigned mask) {
  config.sensorMask = mask;
  PrintError("\n\tSensor mask set to 0x%x.", mask);
}

Outcome LetterSensors(Settings& settings, const std::string& value) {
  if (value.empty() || !IsDigit(value[0])) return Outcome::Rejected;
  const unsigned long mask = std::strtoul(value.c_str(), nullptr, 0);
  StoreSensors(settings.start, static_cast<unsigned>(std::min<unsigned long>(
                                   mask, std::numeric_limits<unsigned>::max())));
  return Outcome::Applied;
}

bool ReadSensors(Settings& settings, const std::string& value, std::string&) {
  const auto mask = ReadSensorMask(value);
  if (mask) StoreSensors(settings.start, *mask);
  return mask.has_value();
}

std::string ShowSensors(const Settings& settings) {
  return TomlText(SensorListText(settings.start.sensorMask));
}

void StoreUnits(StartConfig& config, int units) {
  config.units = units;
  PrintError("\n\tUnits type set to %s.", units == 1 ? "CM" : units == 3 ? "METER" : "INCH");
}

// The options count metres as 2.
constexpr int StoredUnits(int option) { return option == 2 ? 3 : option; }

Outcome LetterUnits(Settings& settings, const std::string& value) {
  int units = 0;
  if (!ReadNumber(value, units)) return Outcome::Rejected;
  StoreUnits(settings.start, StoredUnits(units & 3));
  return Outcome::Applied;
}

bool ReadUnits(Settings& settings, const std::string& value, std::string&) {
  const auto units = ReadChoice(value, {"inch", "cm", "m"});
  if (units) StoreUnits(settings.start, StoredUnits(*units));
  return units.has_value();
}

std::string ShowUnits(const Settings& settings) {
  const int units = settings.start.units;
  return TomlText(units == 0 ? "inch" : units == 1 ? "cm" : "m");
}

void StoreSlot(StartConfig& config, int slot) {
  config.shmDevice = slot - 1;
  PrintError("\n\tTracking data to be written to shared memory slot %d.", slot);
}

Outcome LetterSlot(Settings& settings, const std::string& value) {
  int slot = 0;
  if (!ReadNumber(value, slot)) return Outcome::Rejected;
  if (slot < 1 || slot > kSharedDevices) {
    PrintError("\n\tSpecified shared memory slot(%d) is out of range(1:%d).", slot, kSharedDevices);
    return Outcome::Ignored;
  }
  StoreSlot(settings.start, slot);
  return Outcome::Applied;
}

bool ReadSlot(Settings& settings, const std::string& value, std::string&) {
  const auto slot = ReadWholeNumber(value, 1, kSharedDevices);
  if (slot) StoreSlot(settings.start, *slot);
  return slot.has_value();
}

std::string ShowSlot(const Settings& settings) {
  const int device = settings.start.shmDevice;
  return device == StartConfig::kShmFromPort ? "" : std::to_string(device + 1);
}

void StoreStreaming(StartConfig& config, bool on) {
  config.streaming = on ? 1 : 0;
  PrintError("\n\tDevice will be %s.", on ? "streaming" : "polled");
}

Outcome LetterStreaming(Settings& settings, const std::string& value) {
  StoreStreaming(settings.start, ReadSign(value));
  return Outcome::Applied;
}

bool ReadStreaming(Settings& settings, const std::string& value, std::string&) {
  const auto on = ReadBool(value);
  if (on) StoreStreaming(settings.start, *on);
  return on.has_value();
}

std::string ShowStreaming(const Settings& settings) {
  return TomlBool(settings.start.streaming != 0);
}

// A mistake ends the program before it opens the tracker.
bool ReadFilters(Settings& settings, const std::string& value, std::string& why) {
  std::vector<FilterOption> options;
  bool read = false;
  if (value.starts_with('@')) {
    read = ReadFilterFile(value.substr(1), options, why);
  } else {
    read = ReadFilterOption(value, options.emplace_back(), why);
  }
  if (!read) {
    why.insert(0, "Filter " + value + ": ");
    return false;
  }
  for (const FilterOption& option : options) {
    PrintError("\n\tFilter %s for sensors 0x%x. %s", option.text.c_str(), option.sensors,
               option.filter->Describe().c_str());
    settings.start.filters.push_back(option);
  }
  return true;
}

std::string ShowFilters(const Settings& settings) {
  std::vector<std::string> texts;
  for (const FilterOption& option : settings.start.filters) {
    texts.push_back(FilterOptionText(option));
  }
  return texts.empty() ? "" : TomlTexts(texts);
}

void ForgetFilters(Settings& settings) { settings.start.filters.clear(); }

bool ReadCapture(Settings& settings, const std::string& value, std::string& why) {
  if (value.empty()) return false;
  const std::filesystem::path folder = std::filesystem::path(value).parent_path();
  std::error_code error;
  if (!folder.empty() && !std::filesystem::is_directory(folder, error)) {
    why = "The capture's folder " + folder.string() + " does not exist.";
    return false;
  }
  settings.start.captureFile = value;
  PrintError("\n\tCapture into %s.", value.c_str());
  return true;
}

std::string ShowCapture(const Settings& settings) {
  const std::string& file = settings.start.captureFile;
  return file.empty() ? "" : TomlText(file);
}

bool ReadConfigPath(Settings& settings, const std::string& value, std::string&) {
  settings.program.configFile = value;
  return !value.empty();
}

bool ReadListen(Settings& settings, const std::string& value, std::string&) {
  if (!ParseListenAddress(value)) return false;
  settings.program.listen = value;
  return true;
}

std::string ShowListen(const Settings& settings) {
  return settings.program.listen.empty() ? "" : TomlText(settings.program.listen);
}

bool ReadQuiet(Settings& settings, const std::string& value, std::string&) {
  const auto on = ReadBool(value);
  settings.program.quiet = on.value_or(settings.program.quiet);
  return on.has_value();
}

std::string ShowQuiet(const Settings& settings) { return TomlBool(settings.program.quiet); }

// ---- The table ----------------------------------------------------------------------------------

constexpr unsigned kPrograms =
    static_cast<unsigned>(Audience::Console) | static_cast<unsigned>(Audience::Service);
constexpr unsigned kServiceOnly = static_cast<unsigned>(Audience::Service);

constexpr std::string_view kNumber = "a number";
constexpr std::string_view kDeviceWords =
    "pan-tilt fastrak flock logitech isense simulated intertrax liberty relay gps";

constexpr OptionRow kOptions[] = {
    {'d', "device", "TYPE", "the tracker, by name or number (fastrak)",
     "a device name such as fastrak, or its number", "a number from 0 to 13", kDeviceWords,
     LetterDeviceType, ReadDevice, ShowDevice},
    {'p', "port", "PORT",
     "COM number, path such as /dev/ttyUSB0, usb, or usb:1-2.3 for one of several units (1)",
     "a COM number, a path such as /dev/ttyUSB0, usb, or a unit such as usb:1-2.3",
     "a COM number, U, or a USB unit such as usb:1-2.3", "FILE", LetterPort, ReadPort, ShowPort},
    {'s', "sensors", "LIST", "sensors, such as 1-4 or 1,3; the letter takes a mask (1)",
     "sensors from 1 to 32 such as 1-4 or 1,3, or a mask such as 0x0F", "a mask such as 0x0F", "",
     LetterSensors, ReadSensors, ShowSensors},
    {'u', "units", "UNIT", "unit of length: inch, cm or m (cm)", "inch, cm or m", kNumber,
     "inch cm m", LetterUnits, ReadUnits, ShowUnits},
    {'c', "components", "LIST", "of a pose: position, angles, quaternion (position,angles)",
     "position, angles and quaternion, with ',' between them", kNumber,
     "position,angles position,quaternion position angles quaternion position,angles,quaternion",
     LetterComponents, ReadComponents, ShowComponents},
    {'w', "slot", "NUMBER", "shared-memory slot to publish in, 1 to 16 (the port's number)",
     "a number from 1 to 16", kNumber, "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16", LetterSlot,
     ReadSlot, ShowSlot},
    {'z', "streaming", "", "the tracker sends by itself; --no-streaming: it is polled (streaming)",
     "true or false", "", "", LetterStreaming, ReadStreaming, ShowStreaming},
    {'h', "hemisphere", "X,Y,Z", "zenith of the operating hemisphere (1,0,0)",
     "three numbers such as 0,0,1", "three numbers such as 0,0,1", "", LetterHemisphere,
     ReadHemisphere, ShowHemisphere, ~0U, false, ForgetHemispheres},
    {'a', "align", "X;Y", "X axis and Y axis of the reference frame, such as 1,0,0;0,1,0",
     "two axes such as 1,0,0;0,1,0", "two axes such as 1,0,0;0,1,0", "", LetterAlignment,
     ReadAlignment, ShowAlignment, ~0U, false, ForgetAlignments},
    {'o', "offset", "X,Y,Z[;A,E,R]",
     "offset of the transmitter, and its azimuth, elevation and roll in degrees (0,0,0)",
     "three or six numbers such as 10,0,0;90,0,0", "three or six numbers such as 10,0,0;90,0,0", "",
     LetterOffset, ReadOffset, ShowOffset},
    {'r', "roll", "", "turn every sensor over (off)", "true or false", "1 or 0", "", LetterRoll,
     ReadRoll, ShowRoll},
    {'k', "sync", "KIND", "synchronisation: internal, external or crt (internal)",
     "internal, external or crt", kNumber, "internal external crt", LetterSync, ReadSync, ShowSync},
    {'q', "query", "", "report the instrument's status after boot (off)", "true or false", "", "",
     LetterQuery, ReadQuery, ShowQuery},
    {'j', "joystick", "NUMBER", "1: publish the buttons of the first joystick (0)",
     "a number from 0 to 15", kNumber, "0 1", LetterJoystick, ReadJoystick, ShowJoystick},
    {'\0', "filter", "NAME:KEY=VALUE,...",
     "filter the poses, or @FILE with one filter a line; may be repeated; see docs/filters.md",
     "a filter such as rigid:scale=2", "", "dropout gate map one-euro predict rigid", nullptr,
     ReadFilters, ShowFilters, ~0U, true, ForgetFilters},
    {'\0', "capture", "FILE",
     "write all that passes over the line into FILE, to play it again; see docs/capture.md",
     "the name of a file", "", "FILE", nullptr, ReadCapture, ShowCapture},
    {'\0', "listen", "ADDRESS[:PORT]", "where relays connect (127.0.0.1:5437)",
     "ADDRESS, ADDRESS:PORT or :PORT", "", "", nullptr, ReadListen, ShowListen, kServiceOnly},
    {'\0', "quiet", "", "no blinking cursor and no error marks (off)", "true or false", "", "",
     nullptr, ReadQuiet, ShowQuiet, kPrograms},
    {'i', "", "FILE", "", "", "the name of a file", "FILE", LetterConfigurationFile, nullptr,
     nullptr},
    {'\0', "config", "FILE", "read these options from a file; see docs/configuration.md",
     "the name of a file", "", "FILE", nullptr, ReadConfigPath, nullptr},
    {'\0', "print-config", "", "print the options in force as such a file, and end", "", "", "",
     nullptr, nullptr, nullptr, kPrograms},
    {'\0', "check-config", "", "say whether the options are correct, and end", "", "", "", nullptr,
     nullptr, nullptr, kPrograms},
    {'\0', "help", "", "print this and end", "", "", "", nullptr, nullptr, nullptr, kPrograms},
    {'\0', "version", "", "print the version and end", "", "", "", nullptr, nullptr, nullptr,
     kPrograms},
};

// How many letters must be put in, left out or changed to make one of the other.
std::size_t EditDistance(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  for (std::size_t i = 0; i < row.size(); ++i) row[i] = i;
  for (std::size_t i = 0; i < one.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < other.size(); ++j) {
      const std::size_t changed = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::span<const OptionRow> OptionTable() { return kOptions; }

bool IsFor(const OptionRow& row, Audience audience) {
  return (row.audience & static_cast<unsigned>(audience)) != 0;
}

const OptionRow* FindOption(char letter) {
  const char lower = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  const auto* const row = std::ranges::find(kOptions, lower, &OptionRow::letter);
  return lower == '\0' || row == std::end(kOptions) ? nullptr : row;
}

const OptionRow* FindOption(std::string_view name, Audience audience) {
  const auto* const row = std::ranges::find_if(kOptions, [&](const OptionRow& each) {
    return !name.empty() && each.name == name && IsFor(each, audience);
  });
  return row == std::end(kOptions) ? nullptr : row;
}

std::string NearestName(std::string_view name, std::span<const std::string_view> names) {
  constexpr std::size_t kLongest = 40;
  if (name.size() > kLongest) return "";
  std::string nearest;
  std::size_t best = std::min(std::max<std::size_t>(2, name.size() / 3) + 1, name.size());
  for (const std::string_view each : names) {
    const bool begins = name.size() >= 3 && each.starts_with(name);
    const std::size_t distance = begins ? 0 : EditDistance(name, each);
    if (distance < best) nearest = each;
    best = std::min(best, distance);
  }
  return nearest;
}

std::string NearestOption(std::string_view name, Audience audience, bool inFile) {
  std::vector<std::string_view> names;
  for (const OptionRow& row : kOptions) {
    const bool fits = !row.name.empty() && (!inFile || row.show != nullptr);
    if (fits && IsFor(row, audience)) names.push_back(row.name);
  }
  return NearestName(name, names);
}

}  // namespace kinetrel

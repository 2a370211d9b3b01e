#include "app/option_values.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>

#include "devices/device_types.h"
#include "engine/start_config.h"
#include "filters/filter_option.h"
#include "platform/serial_line.h"

namespace kinetrel {
namespace {

// All of `text` as a number; no sign before a whole one.
template <typename Number, typename... Base>
std::optional<Number> ReadAll(std::string_view text, Base... base) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base...);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return number;
}

std::optional<unsigned> ReadHexadecimal(std::string_view text) {
  if (!text.starts_with("0x") && !text.starts_with("0X")) return std::nullopt;
  return ReadAll<unsigned>(text.substr(2), 16);
}

std::string_view CutAtAny(std::string_view& text, std::string_view separators) {
  const std::size_t end = std::min(text.find_first_of(separators), text.size());
  const std::string_view head = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return head;
}

bool IsPath(std::string_view text) {
  constexpr std::size_t kLongest = 255;  // of SerialPort::OpenPort
  return text.find_first_of("/\\") != std::string_view::npos && text.size() <= kLongest &&
         text.front() != '~';
}

}  // namespace

std::optional<int> ReadWholeNumber(std::string_view text, int least, int most) {
  const auto number = ReadAll<int>(text);
  if (!number || text.front() == '-' || *number < least || *number > most) return std::nullopt;
  return number;
}

std::optional<bool> ReadBool(std::string_view text) {
  if (text == "true") return true;
  if (text == "false") return false;
  return std::nullopt;
}

std::optional<std::vector<double>> ReadNumbers(std::string_view text) {
  std::vector<double> numbers;
  if (text.ends_with(',') || text.ends_with(';')) return std::nullopt;
  do {
    std::string_view word = CutAtAny(text, ",;");
    while (word.starts_with(' ')) word.remove_prefix(1);
    while (word.ends_with(' ')) word.remove_suffix(1);
    const auto number = ReadAll<double>(word);
    if (!number || !std::isfinite(static_cast<float>(*number))) return std::nullopt;
    numbers.push_back(*number);
  } while (!text.empty());
  return numbers;
}

std::optional<int> ReadDeviceType(std::string_view text) {
  const DeviceTypeName* row = FindDeviceType(text);
  if (row == nullptr) row = FindDeviceType(ReadAll<int>(text).value_or(-1));
  return row == nullptr ? std::nullopt : std::optional(row->type);
}

std::optional<unsigned> ReadSensorMask(std::string_view text) {
  if (const auto mask = ReadHexadecimal(text)) return mask;
  unsigned mask = 0;
  return ReadSensorList(text, mask) ? std::optional(mask) : std::nullopt;
}

std::optional<unsigned> ReadComponentMask(std::string_view text) {
  constexpr int kAllComponents = 15;
  if (const auto mask = ReadWholeNumber(text, 0, kAllComponents))
    return static_cast<unsigned>(*mask);
  unsigned mask = 0;
  do {
    const auto bit = ReadChoice(CutAtAny(text, ",+"), {"position", "angles", "quaternion"});
    if (!bit) return std::nullopt;
    mask |= 1U << *bit;
  } while (!text.empty());
  return mask;
}

std::optional<int> ReadChoice(std::string_view text, const std::vector<std::string_view>& words) {
  const auto found = std::ranges::find(words, text);
  if (found != words.end()) return static_cast<int>(found - words.begin());
  return ReadWholeNumber(text, 0, static_cast<int>(words.size()) - 1);
}

bool IsUsbUnit(std::string_view text) {
  constexpr std::string_view kScheme = "usb:";
  constexpr std::size_t kMostDigits = 3;
  if (!text.starts_with(kScheme)) return false;
  text.remove_prefix(kScheme.size());
  for (char separator = '-';; separator = '.') {
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits == 0 || digits > kMostDigits) return false;
    text.remove_prefix(digits);
    if (text.empty()) return separator == '.';  // at least one port
    if (text.front() != separator) return false;
    text.remove_prefix(1);
  }
}

std::optional<PortValue> ReadPortValue(const std::string& text) {
  constexpr int kHighestComPort = 16;
  constexpr int kHighestName = 256;     // of Windows
  constexpr int kLowestUdpPort = 1024;  // of a source of the InterSense library
  constexpr int kHighestAddress = 0xFFFF;
  if (const auto number = ReadWholeNumber(text, 0, kHighestComPort)) return PortValue{*number, ""};
  if (const auto udp = ReadWholeNumber(text, kLowestUdpPort, kHighestAddress)) {
    return PortValue{*udp, ""};
  }
  if (const auto address = ReadHexadecimal(text);
      address && *address <= unsigned{kHighestAddress}) {
    return PortValue{static_cast<int>(*address), ""};
  }
  if (text == "usb" || text == "U" || text == "u") return PortValue{StartConfig::kUsbPort, ""};
  if (IsUsbUnit(text)) return PortValue{StartConfig::kUsbPort, text};
  const unsigned com = ComNumber(text).value_or(0);
  if (com >= 1 && com <= kHighestComPort) return PortValue{static_cast<int>(com), ""};
  const bool isNamed = (com >= 1 && com <= kHighestName) || IsPath(text);
  return isNamed ? std::optional(PortValue{StartConfig::kNamedPort, text}) : std::nullopt;
}

}  // namespace kinetrel

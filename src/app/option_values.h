// Reads the values of long options. Unlike a letter, a long option takes the whole value or refuses
// it. Each reader returns nothing for an ill-formed value.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinetrel {

// A decimal number from `least` to `most`, without a sign.
std::optional<int> ReadWholeNumber(std::string_view text, int least, int most);

std::optional<bool> ReadBool(std::string_view text);  // "true" or "false"

// Finite numbers with ',' or ';' between them.
std::optional<std::vector<double>> ReadNumbers(std::string_view text);

std::optional<int> ReadDeviceType(std::string_view text);  // a name, or the number of one

// "1-4", "1,3" and so on, counted from 1, or a mask such as 0x0F.
std::optional<unsigned> ReadSensorMask(std::string_view text);

// "position", "angles" and "quaternion" with ',' or '+' between them, or a mask from 0 to 15.
std::optional<unsigned> ReadComponentMask(std::string_view text);

// The place of `text` in `words`, or the number of such a place.
std::optional<int> ReadChoice(std::string_view text, const std::vector<std::string_view>& words);

struct PortValue {
  int number = 0;    // as in StartConfig::port
  std::string name;  // as in StartConfig::portName
};

// 0 to 16, a UDP port from 1024, an address such as 0x300, COM<n>, "usb" or "U", "usb:1-2.3", or a
// path.
std::optional<PortValue> ReadPortValue(const std::string& text);

bool IsUsbUnit(std::string_view text);  // "usb:", a bus, '-', and the ports on the way

}  // namespace kinetrel

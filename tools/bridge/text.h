// Numbers as text, the same in every locale; bytes of a packet as text.
#pragma once

#include <array>
#include <charconv>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace kinetrel::bridge {

// With `decimals` digits behind the point; "0.000", never "-0.000". Numbers of more than 300 digits
// come as "?".
inline std::string Fixed(double value, int decimals) {
  std::array<char, 340> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value,
                                 std::chars_format::fixed, decimals);
  if (end.ec != std::errc{}) return "?";
  std::string text(digits.data(), end.ptr);
  if (text.find_first_not_of("-0.") == std::string::npos && text[0] == '-') text.erase(0, 1);
  return text;
}

// Appends "name value", after a space if `text` has something already.
inline void AppendField(std::string& text, std::string_view name, double value, int decimals) {
  if (!text.empty()) text += ' ';
  text.append(name).append(" ").append(Fixed(value, decimals));
}

inline std::string_view AsText(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The text with '?' for control characters, which could steer a terminal.
inline std::string Printable(std::string_view text) {
  std::string printable(text);
  for (char& letter : printable) {
    if (static_cast<unsigned char>(letter) < 0x20 || letter == 0x7F) letter = '?';
  }
  return printable;
}

}  // namespace kinetrel::bridge

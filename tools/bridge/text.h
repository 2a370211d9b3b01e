// Numbers as text, the same in every locale; bytes of a packet as text.
#pragma once

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kinetrel::bridge {

// With `decimals` digits behind the point; "0.000", never "-0.000". Numbers of more than 300 digits
// come as "?". Allocates nothing for texts of up to 15 letters. A number just between two texts may
// become either.
inline std::string Fixed(double value, int decimals) {
  constexpr std::array kPowers = {1., 1e1, 1e2, 1e3, 1e4, 1e5, 1e6};
  const auto places = static_cast<std::size_t>(decimals);
  // The library's own conversion is exact and takes eight times as long.
  if (places < kPowers.size() && std::abs(value) < 1e8) {
    auto rest = static_cast<std::uint64_t>(std::llround(std::abs(value) * kPowers[places]));
    const bool negative = value < 0 && rest != 0;
    std::array<char, 24> digits;
    std::size_t at = digits.size();
    for (std::size_t i = 0; i <= places || rest != 0; ++i) {
      if (i == places && places > 0) digits[--at] = '.';
      digits[--at] = static_cast<char>('0' + rest % 10);
      rest /= 10;
    }
    if (negative) digits[--at] = '-';
    return {digits.data() + at, digits.size() - at};
  }
  std::array<char, 340> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value,
                                 std::chars_format::fixed, decimals);
  if (end.ec != std::errc{}) return "?";
  return {digits.data(), end.ptr};
}

// Appends "name value", after a space if `text` has something already.
inline void AppendField(std::string& text, std::string_view name, double value, int decimals) {
  if (!text.empty()) text += ' ';
  text.append(name).append(" ").append(Fixed(value, decimals));
}

inline std::string_view AsText(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace kinetrel::bridge

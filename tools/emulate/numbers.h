// Numbers out of text.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace kinetrel {

// All of `text` as a number from `least` to `most`; nothing where it is none, or more than one.
template <typename Number>
std::optional<Number> ParseNumber(std::string_view text, Number least, Number most) {
  Number value{};
  if (text.starts_with('+')) text.remove_prefix(1);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool whole = error == std::errc() && end == text.data() + text.size();
  if (!whole || !(value >= least && value <= most)) return std::nullopt;
  return value;
}

// Separated by `separator`, with blanks around; an empty field is 0 long.
inline std::string_view NextField(std::string_view& rest, char separator) {
  const std::size_t end = rest.find(separator);
  std::string_view field = rest.substr(0, end);
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  while (!field.empty() && (field.front() == ' ' || field.front() == '\t')) field.remove_prefix(1);
  while (!field.empty() && (field.back() == ' ' || field.back() == '\t' || field.back() == '\r')) {
    field.remove_suffix(1);
  }
  return field;
}

}  // namespace kinetrel

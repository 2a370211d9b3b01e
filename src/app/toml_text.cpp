#include "app/toml_text.h"

#include <charconv>
#include <cstdio>

#include "devices/pose.h"

namespace kinetrel {
namespace {

template <typename Number>
std::string Shortest(Number value) {
  char text[40];
  const auto [end, error] = std::to_chars(text, text + sizeof text, value);
  std::string shortest(text, end);
  if (shortest.find_first_of(".e") == std::string::npos) shortest += ".0";  // a float in TOML
  return shortest;
}

// `texts` is any range of texts that are TOML already.
template <typename Texts>
std::string Listed(const Texts& texts) {
  std::string all = "[";
  for (const std::string& each : texts) all += (all.size() > 1 ? ", " : "") + each;
  return all + ']';
}

}  // namespace

std::string TomlText(std::string_view text) {
  std::string quoted = "\"";
  for (const char each : text) {
    const auto code = static_cast<unsigned char>(each);
    if (each == '"' || each == '\\') quoted += '\\';
    if (code >= ' ' && code != 0x7F) {
      quoted += each;
      continue;
    }
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04X", unsigned{code});
    quoted += escape;
  }
  return quoted + '"';
}

std::string TomlTexts(const std::vector<std::string>& texts) {
  std::vector<std::string> quoted;
  quoted.reserve(texts.size());
  for (const std::string& each : texts) quoted.push_back(TomlText(each));
  return Listed(quoted);
}

std::string TomlBool(bool value) { return value ? "true" : "false"; }

std::string TomlNumber(float value) { return Shortest(value); }

std::string TomlNumbers(std::span<const float> values) {
  std::vector<std::string> texts;
  texts.reserve(values.size());
  for (const float each : values) texts.push_back(TomlNumber(each));
  return Listed(texts);
}

std::string TomlDegrees(float radians) {
  const double degrees = double{radians} * kDegreesPerRadian;
  const auto rounded = static_cast<float>(degrees);
  const bool same = static_cast<float>(double{rounded} * kRadiansPerDegree) == radians;
  return same ? Shortest(rounded) : Shortest(degrees);
}

}  // namespace kinetrel

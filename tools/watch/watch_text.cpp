#include "watch/watch_view.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace kinetrel::watch {
namespace {

constexpr int kBits = 32;

void AppendTo(std::string& list, const std::string& item) {
  if (!list.empty()) list += ", ";
  list += item;
}

bool Has(std::uint32_t mask, int bit) { return bit < kBits && ((mask >> bit) & 1U) != 0; }

// The set bits counted from 1, runs of three and more joined: "1-3, 7".
std::string BitList(std::uint32_t mask) {
  std::string list;
  for (int first = 0; first < kBits; ++first) {
    if (!Has(mask, first)) continue;
    int last = first;
    while (Has(mask, last + 1)) ++last;
    const bool run = last >= first + 2;
    AppendTo(list, std::to_string(first + 1) + (run ? "-" + std::to_string(last + 1) : ""));
    if (run) first = last;
  }
  return list;
}

template <typename Float>
std::string ShortestJson(Float value) {
  if (!std::isfinite(value)) return "null";
  std::array<char, 32> text;
  const auto done = std::to_chars(text.data(), text.data() + text.size(), value);
  return {text.data(), done.ptr};
}

std::string Format(const char* format, int decimals, double value) {
  std::array<char, 400> text;  // the largest double has 309 digits before the point
  const int length = std::snprintf(text.data(), text.size(), format, decimals, value);
  return {text.data(), static_cast<std::size_t>(length)};
}

}  // namespace

std::string AsciiText(std::string_view text) {
  std::string safe(text);
  for (char& byte : safe) {
    if (byte < 0x20 || byte > 0x7E) byte = '?';
  }
  return safe;
}

std::string SensorWords(std::uint32_t mask) { return mask == 0 ? "none" : BitList(mask); }

std::string ButtonWords(std::uint32_t bits) { return bits == 0 ? "none pressed" : BitList(bits); }

std::string UnitWord(int code) {
  constexpr std::array kWords = {"inch", "cm", "m", "m"};  // 2 is the metre of GPS receivers
  const auto index = static_cast<std::size_t>(code);
  return index < kWords.size() ? kWords[index] : "unit " + std::to_string(code);
}

std::string Fixed(double value, int decimals) {
  if (std::isnan(value)) return "nan";  // never "-nan"
  std::string text = Format("%.*f", decimals, value);
  // Rounded to zero: drop the sign, which would flicker.
  const bool zero = text.find_first_not_of("-0.") == std::string::npos;
  if (zero && text.front() == '-') text.erase(0, 1);
  return text;
}

std::string Cell(double value, std::size_t width, int decimals) {
  std::string text = Fixed(value, decimals);
  if (text.size() > width) text = Format("%.*e", 1, value);
  if (text.size() < width) text.insert(0, width - text.size(), ' ');
  return text;
}

std::string JsonNumber(float value) { return ShortestJson(value); }
std::string JsonNumber(double value) { return ShortestJson(value); }

std::string JsonText(std::string_view text) {
  std::string quoted = "\"";
  for (const char byte : AsciiText(text)) {
    if (byte == '"' || byte == '\\') quoted += '\\';
    quoted += byte;
  }
  return quoted + '"';
}

}  // namespace kinetrel::watch

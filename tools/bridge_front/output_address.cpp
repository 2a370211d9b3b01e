#include "bridge_front/output_address.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace kinetrel::bridge {
namespace {

constexpr std::size_t kLongest = 2048;  // of the text

bool IsSchemeCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.';
}

char LowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char low = LowerCase(c);
  return low >= 'a' && low <= 'f' ? low - 'a' + 10 : -1;
}

bool Decode(std::string_view text, std::string& decoded) {
  decoded.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size()) return false;
      const int high = HexDigit(text[i + 1]);
      const int low = HexDigit(text[i + 2]);
      if (high < 0 || low < 0) return false;
      c = static_cast<char>(high * 16 + low);
      i += 2;
    }
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
    decoded += c;
  }
  return true;
}

// Takes what stands before `mark` off the front of `text`; all of it if there is no mark.
std::string_view TakeUntil(std::string_view& text, std::string_view marks) {
  const std::size_t end = std::min(text.find_first_of(marks), text.size());
  const std::string_view taken = text.substr(0, end);
  text.remove_prefix(end);
  return taken;
}

template <typename T>
bool ParseWhole(std::string_view text, T& value) {
  const char* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, value);
  return read.ec == std::errc() && read.ptr == end;
}

bool ParseAuthority(std::string_view text, OutputAddress& address) {
  std::string_view port;
  if (text.starts_with('[')) {
    const std::size_t end = text.find(']');
    if (end == std::string_view::npos) return false;
    address.host = text.substr(1, end - 1);
    text.remove_prefix(end + 1);
    if (!text.empty() && text[0] != ':') return false;
    port = text;
  } else {
    const std::size_t colon = text.find(':');
    address.host = text.substr(0, colon);
    if (colon != std::string_view::npos) port = text.substr(colon);
  }
  if (port.empty()) return true;
  return ParseWhole(port.substr(1), address.port) && address.port != 0;
}

bool ParseOptions(std::string_view text, OutputAddress& address) {
  while (!text.empty()) {
    text.remove_prefix(1);  // the question mark, or the ampersand
    std::string_view option = TakeUntil(text, "&");
    const std::string_view key = TakeUntil(option, "=");
    if (!option.empty()) option.remove_prefix(1);
    std::pair<std::string, std::string> decoded;
    if (key.empty() || !Decode(key, decoded.first) || !Decode(option, decoded.second)) return false;
    address.options.push_back(std::move(decoded));
  }
  return true;
}

std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t changed = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
    }
  }
  return row[b.size()];
}

std::string Joined(const std::vector<std::string_view>& words) {
  std::string joined;
  for (const std::string_view word : words) {
    if (!joined.empty()) joined += ", ";
    joined += word;
  }
  return joined;
}

}  // namespace

std::string ParseOutputAddress(std::string_view text, OutputAddress& address) {
  address = {};
  if (text.size() > kLongest) return "the output's text is too long";
  address.text = text;
  const std::string_view scheme = TakeUntil(text, ":/?");
  for (const char c : scheme) address.scheme += LowerCase(c);
  if (scheme.empty() ||
      !std::all_of(address.scheme.begin(), address.scheme.end(), IsSchemeCharacter)) {
    return "an output begins with its protocol, as in osc://192.168.1.20:9000";
  }
  if (text.starts_with("://")) {
    text.remove_prefix(3);
    if (!ParseAuthority(TakeUntil(text, "/?"), address)) {
      return "after :// come a host, a colon and a port from 1 to 65535";
    }
    if (text.starts_with('/')) {
      text.remove_prefix(1);
      if (!Decode(TakeUntil(text, "?"), address.path)) return "the path is malformed";
    }
  }
  if (!text.empty() && text[0] != '?') {
    return "after the protocol come ://host:port or ?options";
  }
  if (!ParseOptions(text, address)) return "options are written as ?key=value&key=value";
  return {};
}

// ---- Options
// -------------------------------------------------------------------------------------

std::optional<std::string> OutputOptions::Find(std::string_view key) {
  if (std::find(asked_.begin(), asked_.end(), key) == asked_.end()) asked_.emplace_back(key);
  const auto found = std::find_if(address_.options.rbegin(), address_.options.rend(),
                                  [&](const auto& option) { return option.first == key; });
  if (found == address_.options.rend()) return {};
  return found->second;
}

std::string OutputOptions::Text(std::string_view key, std::string_view fallback) {
  return Find(key).value_or(std::string(fallback));
}

double OutputOptions::Number(std::string_view key, double fallback, double lowest, double highest) {
  const auto text = Find(key);
  double value = fallback;
  if (text && !(ParseWhole(*text, value) && value >= lowest && value <= highest)) {
    ComplainOf(key, "a number from " + std::to_string(lowest) + " to " + std::to_string(highest));
    return fallback;
  }
  return value;
}

int OutputOptions::Integer(std::string_view key, int fallback, int lowest, int highest) {
  const auto text = Find(key);
  int value = fallback;
  if (text && !(ParseWhole(*text, value) && value >= lowest && value <= highest)) {
    ComplainOf(key, "a number from " + std::to_string(lowest) + " to " + std::to_string(highest));
    return fallback;
  }
  return value;
}

bool OutputOptions::Flag(std::string_view key, bool fallback) {
  return Choice(key, fallback ? 0 : 1, {"yes", "no", "true", "false", "on", "off", "1", "0"}) % 2 ==
         0;
}

std::size_t OutputOptions::Choice(std::string_view key, std::size_t fallback,
                                  const std::vector<std::string_view>& choices) {
  const auto text = Find(key);
  if (!text) return fallback;
  const auto found = std::find(choices.begin(), choices.end(), *text);
  if (found != choices.end()) return static_cast<std::size_t>(found - choices.begin());
  ComplainOf(key, "one of " + Joined(choices));
  return fallback;
}

std::vector<double> OutputOptions::Numbers(std::string_view key, std::size_t count) {
  const auto text = Find(key);
  std::vector<double> numbers;
  if (!text) return numbers;
  std::string_view rest = *text;
  for (;;) {
    double number = 0;
    if (!ParseWhole(TakeUntil(rest, ","), number) || !std::isfinite(number)) break;
    numbers.push_back(number);
    if (rest.empty()) {
      if (numbers.size() == count) return numbers;
      break;
    }
    rest.remove_prefix(1);
  }
  ComplainOf(key, std::to_string(count) + " numbers separated by commas");
  return {};
}

void OutputOptions::Complain(const std::string& complaint) {
  if (complaint_.empty()) complaint_ = complaint;
}

void OutputOptions::ComplainOf(std::string_view key, const std::string& expected) {
  Complain("option " + std::string(key) + " needs " + expected);
}

std::string OutputOptions::Complaint() const {
  if (!complaint_.empty()) return complaint_;
  for (const auto& [key, value] : address_.options) {
    if (std::find(asked_.begin(), asked_.end(), key) != asked_.end()) continue;
    const std::vector<std::string_view> known(asked_.begin(), asked_.end());
    const std::string_view near = Nearest(key, known);
    return "unknown option " + key +
           (near.empty() ? "; known are " + Joined(known)
                         : "; did you mean " + std::string(near) + "?");
  }
  return {};
}

std::string_view Nearest(std::string_view word, const std::vector<std::string_view>& choices) {
  std::string_view nearest;
  std::size_t best = 3;
  for (const std::string_view choice : choices) {
    const std::size_t distance = Distance(word.substr(0, 64), choice);
    if (distance < best && distance < choice.size()) {
      best = distance;
      nearest = choice;
    }
  }
  return nearest;
}

}  // namespace kinetrel::bridge

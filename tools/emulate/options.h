// Numbers in text, and command-line options in tables: one row each, with its help. CLI11 reads
// them.
#pragma once

#include <algorithm>
#include <charconv>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace CLI {  // NOLINT(readability-identifier-naming): the library's own
class App;
}

namespace kinetrel::emulate {

// ---- Numbers ------------------------------------------------------------------------------------

// All of `text` as a number from `least` to `most`; empty if it is anything else.
template <typename Number>
std::optional<Number> ParseNumber(std::string_view text, Number least, Number most) {
  Number value{};
  if (text.starts_with('+')) text.remove_prefix(1);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool whole = error == std::errc() && end == text.data() + text.size();
  if (!whole || !(value >= least && value <= most)) return std::nullopt;
  return value;
}

// Takes the next field off `rest`, without the blanks around it. It may be empty.
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

// ---- Options ------------------------------------------------------------------------------------

struct OptionRow {
  std::string_view name;   // "--seed"
  std::string_view value;  // the help's name of its value; empty: the option takes no value
  std::string_view help;
};

using OptionTable = std::span<const OptionRow>;

// Adds the options of `table` to `app`, below the headline `group` of its help. Each option may be
// given several times.
void AddOptions(CLI::App& app, OptionTable table, const std::string& group);

// The options of one command line. Asking for a bad value leaves a complaint; the first one stays.
class OptionValues {
 public:
  // Reads the arguments of a program that has the options of `table` alone.
  static OptionValues Parse(std::span<const char* const> arguments, OptionTable table);

  // Takes over the options that `app` was given.
  void Take(const CLI::App& app);

  bool Has(std::string_view name) const { return !All(name).empty(); }
  std::vector<std::string> All(std::string_view name) const;  // every value, in order
  std::string Text(std::string_view name, std::string_view byItself) const;  // the last one counts

  template <typename Number>
  Number Get(std::string_view name, Number byItself, Number least, Number most) {
    if (!Has(name)) return byItself;
    const std::string text = Text(name, "");
    const auto number = ParseNumber(text, least, most);
    if (!number) {
      Refuse(std::string(name) + ": wants a number from " + Shown(least) + " to " + Shown(most) +
             ", not '" + text + "'");
    }
    return number.value_or(byItself);
  }

  // The row of the value in `rows`, a table whose rows have a field `option`. Default: the first
  // row.
  template <typename Rows>
  std::size_t Choice(std::string_view name, const Rows& rows) {
    const std::string text = Text(name, rows[0].option);
    std::string all;
    for (std::size_t i = 0; i < std::size(rows); ++i) {
      if (text == rows[i].option) return i;
      all += (i == 0 ? "" : ", ") + std::string(rows[i].option);
    }
    Refuse(std::string(name) + ": wants one of " + all + ", not '" + text + "'");
    return 0;
  }

  void Refuse(std::string complaint) {
    if (complaint_.empty()) complaint_ = std::move(complaint);
  }
  const std::string& complaint() const { return complaint_; }

 private:
  template <typename Number>
  static std::string Shown(Number number) {
    std::string text = std::to_string(number);
    if (text.find('.') == std::string::npos) return text;
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
  }

  std::vector<std::pair<std::string, std::string>> given_;
  std::string complaint_;
};

}  // namespace kinetrel::emulate

#include "filters/pose_pairs.h"

#include <charconv>
#include <cstdio>
#include <fstream>
#include <ostream>
#include <string_view>

namespace kinetrel {
namespace {

constexpr int kMostPoints = 100'000;
constexpr double kLargestNumber = 1e6;  // of metres or degrees

constexpr std::size_t kGroupSize = 3;
enum Group : std::size_t { Measured, True, MeasuredTurn, TrueTurn };
constexpr std::size_t kGroups = 4;
constexpr std::size_t kAll = kGroups * kGroupSize;

constexpr std::array<std::string_view, kAll> kColumns = {  // group by group
    "measured_x_m",      "measured_y_m",     "measured_z_m",         "true_x_m",
    "true_y_m",          "true_z_m",         "measured_azimuth_deg", "measured_elevation_deg",
    "measured_roll_deg", "true_azimuth_deg", "true_elevation_deg",   "true_roll_deg"};
constexpr std::string_view kNameColumn = "point";

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \r\"");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \r\"") + 1 - begin);
}

std::vector<std::string_view> Split(std::string_view line, char separator) {
  std::vector<std::string_view> cells;
  for (;;) {
    const std::size_t end = line.find(separator);
    cells.push_back(Trimmed(line.substr(0, end)));
    if (end == std::string_view::npos) return cells;
    line.remove_prefix(end + 1);
  }
}

std::size_t PlaceOf(const std::vector<std::string_view>& titles, std::string_view title) {
  return static_cast<std::size_t>(std::ranges::find(titles, title) - titles.begin());
}

class Reader {
 public:
  Reader(PoseColumns needed, PosePairTable& table, std::string& error)
      : needed_(needed), table_(table), error_(error) {}

  bool Read(std::istream& from) {
    for (std::string line; std::getline(from, line);) {
      ++line_;
      std::string_view text = line;
      if (line_ == 1 && text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
      if (Trimmed(text).empty() || text.front() == '#') continue;
      if (!(columns_ == 0 ? ReadTitle(text) : ReadPoint(text))) return false;
    }
    if (columns_ == 0) return Refuse("it is empty; its first line must name the columns");
    if (from.bad()) return Refuse("it cannot be read to its end");
    return true;
  }

 private:
  bool Refuse(const std::string& why) {
    error_ = why;
    return false;
  }
  bool RefuseLine(const std::string& why) {
    return Refuse("line " + std::to_string(line_) + ": " + why);
  }

  bool ReadTitle(std::string_view text) {
    for (const char candidate : {';', '\t'}) {
      if (text.find(candidate) != std::string_view::npos) separator_ = candidate;
    }
    const std::vector<std::string_view> titles = Split(text, separator_);
    columns_ = titles.size();
    name_ = PlaceOf(titles, kNameColumn);
    for (std::size_t group = 0; group < kGroups; ++group) {
      if (!FindGroup(titles, group)) return false;
    }
    table_.hasMeasured = has_[Measured];
    if (has_[Measured] && has_[MeasuredTurn] != has_[TrueTurn]) {
      return RefuseLine("orientations need all six columns in _deg, or none");
    }
    table_.hasOrientations = has_[TrueTurn];
    return true;
  }

  bool FindGroup(const std::vector<std::string_view>& titles, std::size_t group) {
    std::string_view missing;
    std::size_t found = 0;
    for (std::size_t i = group * kGroupSize; i < (group + 1) * kGroupSize; ++i) {
      place_[i] = PlaceOf(titles, kColumns[i]);
      if (place_[i] < columns_) {
        ++found;
      } else if (missing.empty()) {
        missing = kColumns[i];
      }
    }
    has_[group] = found == kGroupSize;
    const bool needed =
        group == True || (group == Measured && needed_ == PoseColumns::MeasuredAndTrue);
    if (has_[group] || (found == 0 && !needed)) return true;
    return RefuseLine("there is no column " + std::string(missing));
  }

  bool ReadPoint(std::string_view text) {
    const std::vector<std::string_view> words = Split(text, separator_);
    if (words.size() != columns_) {
      return RefuseLine("it has " + std::to_string(words.size()) + " columns in place of " +
                        std::to_string(columns_));
    }
    if (table_.pairs.size() >= kMostPoints) {
      return Refuse("it has more than " + std::to_string(kMostPoints) + " points");
    }
    std::array<Vector3, kGroups> groups{};
    for (std::size_t i = 0; i < kAll; ++i) {
      double& number = groups[i / kGroupSize][i % kGroupSize];
      if (has_[i / kGroupSize] && !ReadNumber(words[place_[i]], number)) {
        return RefuseLine('"' + std::string(words[place_[i]].substr(0, 40)) +
                          "\" is not a number for " + std::string(kColumns[i]));
      }
    }
    table_.pairs.push_back({groups[Measured], groups[True],
                            FromAngles(kRadiansPerDegree * groups[MeasuredTurn]),
                            FromAngles(kRadiansPerDegree * groups[TrueTurn]), line_,
                            std::string(name_ < columns_ ? words[name_] : "")});
    return true;
  }

  static bool ReadNumber(std::string_view word, double& number) {
    const auto [end, failure] = std::from_chars(word.data(), word.data() + word.size(), number);
    const bool whole = failure == std::errc{} && end == word.data() + word.size();
    return whole && std::abs(number) <= kLargestNumber;  // false for NaN
  }

  PoseColumns needed_;
  PosePairTable& table_;
  std::string& error_;
  std::array<std::size_t, kAll> place_{};  // of each column; columns_: it is not there
  std::array<bool, kGroups> has_{};
  std::size_t columns_ = 0;  // 0: the titles are still to come
  std::size_t name_ = 0;
  char separator_ = ',';
  int line_ = 0;
};

void WriteNumbers(std::ostream& to, const Vector3& values) {
  for (const double value : values) {
    char text[32];
    std::snprintf(text, sizeof text, "%.7g", value);
    to << text << ',';
  }
}

}  // namespace

bool ReadPosePairs(std::istream& from, PoseColumns needed, PosePairTable& table,
                   std::string& error) {
  table = {};
  return Reader(needed, table, error).Read(from);
}

bool ReadPosePairFile(const std::string& path, PoseColumns needed, PosePairTable& table,
                      std::string& error) {
  std::ifstream file(path);
  if (file.is_open()) return ReadPosePairs(file, needed, table, error);
  error = "it cannot be read";
  return false;
}

void WritePosePairs(std::ostream& to, const PosePairTable& table) {
  const std::size_t columns = table.hasOrientations ? kAll : kAll / 2;
  for (std::size_t i = 0; i < columns; ++i) to << kColumns[i] << ',';
  to << kNameColumn << '\n';
  int number = 0;
  for (const PosePair& pair : table.pairs) {
    WriteNumbers(to, pair.measured);
    WriteNumbers(to, pair.truth);
    if (table.hasOrientations) {
      WriteNumbers(to, kDegreesPerRadian * ToAngles(pair.measuredOrientation));
      WriteNumbers(to, kDegreesPerRadian * ToAngles(pair.trueOrientation));
    }
    ++number;
    std::string name = pair.name.empty() ? std::to_string(number) : pair.name;
    std::ranges::replace_if(
        name, [](char each) { return each == ',' || each == ';' || each == '\t'; }, ' ');
    to << name << '\n';
  }
}

}  // namespace kinetrel

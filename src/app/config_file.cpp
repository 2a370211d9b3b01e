#include "app/config_file.h"

#include <toml++/toml.h>
#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "app/option_table.h"
#include "app/option_values.h"
#include "app/toml_text.h"
#include "engine/mapping.h"
#include "platform/console.h"
#include "publish/shared_track_block.h"

namespace kinetrel {
namespace {

constexpr std::size_t kLargestFile = 1 << 20;
constexpr std::size_t kMostComplaints = 20;
constexpr std::string_view kSensorTables = "sensor";
constexpr std::string_view kMappingTables = "mapping";

// ---- Complaints ---------------------------------------------------------------------------------

class Complaints {
 public:
  explicit Complaints(std::string name) : name_(std::move(name)) {}

  void Add(const toml::source_position& at, const std::string& text) {
    lines_.emplace_back(at.line, text);
  }
  void Add(const toml::node& at, const std::string& text) { Add(at.source().begin, text); }

  std::string Text() {
    std::ranges::stable_sort(lines_, {}, [](const auto& line) { return line.first; });
    std::string all;
    for (std::size_t i = 0; i < std::min(lines_.size(), kMostComplaints); ++i) {
      if (i > 0) all += "\n\t";
      all += name_ + ':' + std::to_string(lines_[i].first) + ": " + lines_[i].second;
    }
    if (lines_.size() > kMostComplaints) all += "\n\tThere are more mistakes.";
    return all;
  }

 private:
  std::string name_;
  std::vector<std::pair<toml::source_index, std::string>> lines_;
};

std::string Quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

std::string UnknownKey(std::string_view key, const std::string& nearest) {
  return "unknown key " + Quoted(key) +
         (nearest.empty() ? "." : "; the nearest one is " + Quoted(nearest) + '.');
}

// ---- Values -------------------------------------------------------------------------------------

template <typename Number>
std::string NumberText(Number number) {
  char text[40];
  return std::string(text, std::to_chars(text, text + sizeof text, number).ptr);
}

// A value in the words of a long option: [[1, 2, 3], [4, 5, 6]] is "1,2,3;4,5,6". Nothing for a
// table, a date, and lists in lists in lists.
std::optional<std::string> OptionText(const toml::node& node, int depth = 0) {
  if (const auto* text = node.as_string()) return text->get();
  if (const auto* number = node.as_integer()) return NumberText(number->get());
  if (const auto* number = node.as_floating_point()) return NumberText(number->get());
  if (const auto* on = node.as_boolean()) return on->get() ? "true" : "false";
  const toml::array* const list = node.as_array();
  if (list == nullptr || depth > 1) return std::nullopt;
  std::string all;
  for (const toml::node& each : *list) {
    const auto text = OptionText(each, depth + 1);
    if (!text) return std::nullopt;
    if (!all.empty()) all += each.is_array() ? ';' : ',';
    all += *text;
  }
  return all;
}

std::string Wants(std::string_view key, std::string_view expects, const toml::node& node) {
  const auto text = OptionText(node);
  return std::string(key) + " wants " + std::string(expects) +
         (text ? ", not " + Quoted(*text) : "") + '.';
}

// ---- Options ------------------------------------------------------------------------------------

void ApplyValue(Settings& settings, const OptionRow& row, const toml::node& node,
                Complaints& complaints) {
  std::string why;
  const auto text = OptionText(node);
  const bool kindFits = !row.value.empty() || node.is_boolean();  // a switch takes true or false
  if (kindFits && text && row.read(settings, *text, why)) return;
  complaints.Add(node, why.empty() ? Wants(row.name, row.expects, node) : why);
}

void ApplyOption(Settings& settings, Audience audience, std::string_view key,
                 const toml::node& node, Complaints& complaints) {
  const OptionRow* const row = FindOption(key, audience);
  if (row == nullptr || row->show == nullptr) {
    const OptionRow* const other = FindOption(key, Audience::Service);
    const bool ofService = row == nullptr && other != nullptr && other->show != nullptr;
    complaints.Add(node, ofService ? std::string(key) + " is an option of kinetrel-service only."
                                   : UnknownKey(key, NearestOption(key, audience, true)));
    return;
  }
  const toml::array* const list = node.as_array();
  if (!row->isList || list == nullptr) {
    ApplyValue(settings, *row, node, complaints);
    return;
  }
  for (const toml::node& each : *list) ApplyValue(settings, *row, each, complaints);
}

// ---- Tables -------------------------------------------------------------------------------------

// A key of one table in a list of tables.
template <typename Into>
struct KeyRow {
  std::string_view name;
  std::string_view expects;
  bool (*read)(Into& into, const std::string& text);
};

bool ReadSensorNumber(int& sensor, const std::string& text) {
  const auto number = ReadWholeNumber(text, 1, kPoseSlots);
  if (number) sensor = *number - 1;
  return number.has_value();
}

// At most what the stream has room for, and nothing that moves a terminal's cursor.
bool IsSensorName(std::string_view text) {
  constexpr std::size_t kLongest = 31;
  return !text.empty() && text.size() <= kLongest &&
         std::ranges::none_of(text, [](unsigned char c) { return c < ' ' || c == 0x7F; });
}

template <std::size_t count>
bool ReadFloats(std::optional<std::array<float, count>>& into, const std::string& text) {
  const auto numbers = ReadNumbers(text);
  if (!numbers || numbers->size() != count) return false;
  std::ranges::transform(*numbers, into.emplace().begin(),
                         [](double value) { return static_cast<float>(value); });
  return true;
}

constexpr KeyRow<SensorSettings> kSensorKeys[] = {
    {"number", "a number from 1 to 32",
     [](SensorSettings& each, const std::string& text) {
       return ReadSensorNumber(each.sensor, text);
     }},
    {"name", "at most 31 bytes of text",
     [](SensorSettings& each, const std::string& text) {
       each.name = text;
       return IsSensorName(text);
     }},
    {"hemisphere", "three numbers such as [0, 0, 1]",
     [](SensorSettings& each, const std::string& text) {
       return ReadFloats(each.hemisphere, text);
     }},
    {"align", "two axes such as [[1, 0, 0], [0, 1, 0]]",
     [](SensorSettings& each, const std::string& text) {
       return ReadFloats(each.alignment, text);
     }},
};

constexpr KeyRow<ConfiguredMapping> kMappingKeys[] = {
    {"sensor", "a number from 1 to 32",
     [](ConfiguredMapping& each, const std::string& text) {
       return ReadSensorNumber(each.sensor, text);
     }},
    {"bin", "a number from 0 to 15",
     [](ConfiguredMapping& each, const std::string& text) {
       const auto bin = ReadWholeNumber(text, 0, kSharedBins - 1);
       each.bin = bin.value_or(0);
       return bin.has_value();
     }},
    {"pose-slot", "a number from 0 to 31",
     [](ConfiguredMapping& each, const std::string& text) {
       const auto slot = ReadWholeNumber(text, 0, kPoseSlots - 1);
       each.poseSlot = slot.value_or(0);
       return slot.has_value();
     }},
};

template <typename Into, std::size_t count>
void ReadKey(Into& into, std::string_view key, const toml::node& node,
             const KeyRow<Into> (&rows)[count], Complaints& complaints) {
  const auto* const row = std::ranges::find(rows, key, &KeyRow<Into>::name);
  if (row == std::end(rows)) {
    std::vector<std::string_view> names;
    for (const KeyRow<Into>& each : rows) names.push_back(each.name);
    complaints.Add(node, UnknownKey(key, NearestName(key, names)));
    return;
  }
  const auto text = OptionText(node);
  if (!text || !row->read(into, *text)) complaints.Add(node, Wants(key, row->expects, node));
}

// Calls use(value, table) for each table of the list. `mainKey` must be in each.
template <typename Into, std::size_t count, typename Use>
void ReadTables(std::string_view name, const toml::node& node, std::string_view mainKey,
                const KeyRow<Into> (&rows)[count], Complaints& complaints, Use use) {
  const toml::array* const list = node.as_array();
  if (list == nullptr || !list->is_homogeneous<toml::table>()) {
    complaints.Add(node, "write " + std::string(name) + " as [[" + std::string(name) + "]].");
    return;
  }
  for (const toml::node& each : *list) {
    const toml::table& table = *each.as_table();
    Into into;
    for (const auto& [key, value] : table) ReadKey(into, key.str(), value, rows, complaints);
    if (table.contains(mainKey)) {
      use(into, each);
    } else {
      complaints.Add(each, "[[" + std::string(name) + "]] needs " + std::string(mainKey) + ".");
    }
  }
}

void ReadSensorTables(StartConfig& config, const toml::node& node, Complaints& complaints) {
  const auto use = [&](const SensorSettings& read, const toml::node& at) {
    const std::string number = std::to_string(read.sensor + 1);
    if (std::ranges::count(config.sensors, read.sensor, &SensorSettings::sensor) > 0) {
      complaints.Add(at, "sensor " + number + " has two tables.");
    }
    config.sensors.push_back(read);
    PrintError("\n\tSensor %s has settings of its own.", number.c_str());
  };
  config.sensors.clear();
  ReadTables(kSensorTables, node, "number", kSensorKeys, complaints, use);
}

void ReadMappingTables(StartConfig& config, const toml::node& node, Complaints& complaints) {
  const auto use = [&](const ConfiguredMapping& read, const toml::node& at) {
    const bool taken = std::ranges::any_of(config.mappings, [&](const ConfiguredMapping& other) {
      return other.bin == read.bin && other.poseSlot == read.poseSlot;
    });
    if (taken) {
      complaints.Add(at, "bin " + std::to_string(read.bin) + ", pose slot " +
                             std::to_string(read.poseSlot) + " has two mappings.");
    }
    config.mappings.push_back(read);
    PrintError("\n\tSensor %d is published in bin %d, pose slot %d.", read.sensor + 1, read.bin,
               read.poseSlot);
  };
  config.mappings.clear();
  ReadTables(kMappingTables, node, "sensor", kMappingKeys, complaints, use);
}

void ApplyDocument(Settings& settings, Audience audience, const toml::table& document,
                   Complaints& complaints) {
  // In the order of the file, in which the user also reads what is printed.
  std::multimap<std::pair<toml::source_index, toml::source_index>,
                std::pair<std::string_view, const toml::node*>>
      inOrder;
  for (const auto& [key, node] : document) {
    const toml::source_position at = node.source().begin;
    inOrder.emplace(std::pair(at.line, at.column), std::pair(key.str(), &node));
  }
  for (const auto& [at, entry] : inOrder) {
    const auto& [key, node] = entry;
    if (key == kSensorTables) {
      ReadSensorTables(settings.start, *node, complaints);
    } else if (key == kMappingTables) {
      ReadMappingTables(settings.start, *node, complaints);
    } else {
      ApplyOption(settings, audience, key, *node, complaints);
    }
  }
}

// ---- Printing -----------------------------------------------------------------------------------

std::string SensorText(const SensorSettings& each) {
  std::string text = "\n[[sensor]]\nnumber = " + std::to_string(each.sensor + 1) + '\n';
  if (!each.name.empty()) text += "name = " + TomlText(each.name) + '\n';
  if (each.hemisphere) text += "hemisphere = " + TomlNumbers(*each.hemisphere) + '\n';
  if (each.alignment) {
    const std::span<const float> axes(*each.alignment);
    text += "align = [" + TomlNumbers(axes.first(3)) + ", " + TomlNumbers(axes.last(3)) + "]\n";
  }
  return text;
}

std::string MappingText(const ConfiguredMapping& each) {
  return "\n[[mapping]]\nsensor = " + std::to_string(each.sensor + 1) +
         "\nbin = " + std::to_string(each.bin) + "\npose-slot = " + std::to_string(each.poseSlot) +
         '\n';
}

}  // namespace

bool ReadConfigText(Settings& settings, Audience audience, std::string_view text,
                    const std::string& name, std::string& complaints) {
  Complaints found(name);
  const toml::parse_result document = toml::parse(text);
  if (document) {
    ApplyDocument(settings, audience, document.table(), found);
  } else {
    found.Add(document.error().source().begin,
              "this is not TOML: " + std::string(document.error().description()) + '.');
  }
  complaints = found.Text();
  return complaints.empty();
}

bool ReadConfigFile(Settings& settings, Audience audience, const std::string& path,
                    std::string& complaints) {
  std::ifstream file(path, std::ios::binary);
  std::string text(kLargestFile + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (!file.is_open() || file.bad() || !file.eof()) {
    const bool tooLarge = text.size() > kLargestFile;
    complaints = path + (tooLarge ? ": it is larger than 1 MB." : ": it cannot be read.");
    return false;
  }
  return ReadConfigText(settings, audience, text, path, complaints);
}

std::string ConfigText(const Settings& settings, Audience audience) {
  std::string text;
  for (const OptionRow& row : OptionTable()) {
    if (row.show == nullptr || !IsFor(row, audience)) continue;
    const std::string value = row.show(settings);
    if (!value.empty()) text += std::string(row.name) + " = " + value + '\n';
  }
  for (const SensorSettings& each : settings.start.sensors) text += SensorText(each);
  for (const ConfiguredMapping& each : settings.start.mappings) text += MappingText(each);
  return text;
}

}  // namespace kinetrel

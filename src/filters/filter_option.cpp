#include "filters/filter_option.h"

#include <charconv>
#include <fstream>
#include <iterator>

#include "filters/distortion_filter.h"
#include "filters/dropout_filter.h"
#include "filters/one_euro_filter.h"
#include "filters/outlier_gate_filter.h"
#include "filters/prediction_filter.h"
#include "filters/rigid_transform_filter.h"
#include "filters/tuned_filter.h"

namespace kinetrel {
namespace {

constexpr int kSensors = 32;
constexpr std::string_view kSensorsKey = "sensors";

struct Maker {
  const char* name;
  std::unique_ptr<TunedFilter> (*make)();
};

template <typename Kind>
std::unique_ptr<TunedFilter> Make() {
  return std::make_unique<Kind>();
}

constexpr Maker kMakers[] = {
    {"dropout", Make<DropoutFilter>},    {"gate", Make<OutlierGateFilter>},
    {"map", Make<DistortionFilter>},     {"one-euro", Make<OneEuroFilter>},
    {"predict", Make<PredictionFilter>}, {"rigid", Make<RigidTransformFilter>},
};

// Cuts `text` at the first of `separators`: returns what is before it, leaves what is after it.
std::string_view CutAt(std::string_view& text, std::string_view separators) {
  const std::size_t end = std::min(text.find_first_of(separators), text.size());
  const std::string_view head = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return head;
}

bool ReadSensor(std::string_view text, int& sensor) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), sensor);
  return error == std::errc{} && end == text.data() + text.size() && sensor >= 1 &&
         sensor <= kSensors;
}

// Reads lines until the end or the first bad one.
bool ReadLines(std::istream& lines, std::vector<FilterOption>& options, std::string& error) {
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    if (line.empty() || line.front() == '#') continue;
    FilterOption option;
    if (!ReadFilterOption(line, option, error)) {
      error.insert(0, "line " + std::to_string(number) + ": ");
      return false;
    }
    options.push_back(option);
  }
  return true;
}

}  // namespace

bool ReadSensorList(std::string_view text, unsigned& mask) {
  mask = 0;
  do {
    std::string_view range = CutAt(text, "+,");
    const bool isRange = range.find('-') != std::string_view::npos;
    int first = 0;
    if (!ReadSensor(CutAt(range, "-"), first)) return false;
    int last = first;
    if (isRange && (!ReadSensor(range, last) || last < first)) return false;
    for (int sensor = first; sensor <= last; ++sensor) mask |= 1U << (sensor - 1);
  } while (!text.empty());
  return true;
}

bool ReadFilterOption(std::string_view text, FilterOption& option, std::string& error) {
  option = {};
  option.text = CutAt(text, ":");
  char before = ':';
  while (!text.empty()) {
    const std::string_view setting = CutAt(text, ",");
    std::string_view value = setting;
    if (CutAt(value, "=") == kSensorsKey) {
      if (ReadSensorList(value, option.sensors)) continue;
      error = "sensors takes numbers from 1 to 32, such as 1+3 or 1-4.";
      return false;
    }
    option.text += before + std::string(setting);
    before = ',';
  }
  option.filter = MakeFilter(option.text, error);
  return option.filter != nullptr;
}

std::string SensorListText(unsigned mask, char separator) {
  if (mask == 0) return "0x0";
  std::string text;
  for (int first = 1; first <= kSensors; ++first) {
    int last = first;
    while (last <= kSensors && (mask >> (last - 1) & 1) != 0) ++last;
    if (last-- == first) continue;
    if (!text.empty()) text += separator;
    text += std::to_string(first);
    if (last > first) text += '-' + std::to_string(last);
    first = last;
  }
  return text;
}

std::string FilterOptionText(const FilterOption& option) {
  if (option.sensors == ~0U) return option.text;
  const bool alone = option.text.find(':') == std::string::npos;
  return option.text + (alone ? ":" : ",") + std::string(kSensorsKey) + '=' +
         SensorListText(option.sensors, '+');
}

std::unique_ptr<Filter> MakeFilter(std::string_view text, std::string& error) {
  const std::string_view name = CutAt(text, ":");
  const auto maker = std::ranges::find_if(
      kMakers, [name](const Maker& candidate) { return candidate.name == name; });
  if (maker == std::end(kMakers)) {
    error = "There is no filter \"" + std::string(name) + "\". There are";
    for (const Maker& known : kMakers) error += ' ' + std::string(known.name);
    error += '.';
    return nullptr;
  }
  std::unique_ptr<TunedFilter> filter = maker->make();
  while (!text.empty()) {
    std::string_view value = CutAt(text, ",");
    const std::string_view key = CutAt(value, "=");
    if (!filter->SetByName(key, value, error)) return nullptr;
  }
  if (!filter->Complete(error)) return nullptr;
  return filter;
}

bool ReadFilterFile(const std::string& path, std::vector<FilterOption>& options,
                    std::string& error) {
  std::ifstream file(path);
  const bool read = file.is_open() && ReadLines(file, options, error);
  if (!file.is_open() || file.bad()) error = "it cannot be read";
  return read && !file.bad();
}

}  // namespace kinetrel

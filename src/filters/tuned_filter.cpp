#include "filters/tuned_filter.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "devices/bounded_text.h"

namespace kinetrel {
namespace {

constexpr std::int64_t kLongestStep = 1'000'000'000;  // ns

template <std::size_t Size>
bool AllFinite(const std::array<double, Size>& values) {
  return std::ranges::all_of(values, [](double value) { return std::isfinite(value); });
}

void Clean(PoseSample& sample) {
  if (!AllFinite(sample.position)) sample.hasPosition = false;
  const Rotation unit = AtUnitLength(sample.orientation);
  if (!AllFinite(unit)) sample.hasOrientation = false;
  if (sample.hasOrientation) sample.orientation = unit;
}

bool IsWhole(const PoseSample& sample) {
  return (!sample.hasPosition || AllFinite(sample.position)) &&
         (!sample.hasOrientation || AllFinite(sample.orientation));
}

// The number of the word in "a|b|c"; -1: it is not there.
int ChoiceOf(std::string_view choices, std::string_view word) {
  for (int number = 0;; ++number) {
    const std::size_t end = choices.find('|');
    if (choices.substr(0, end) == word) return number;
    if (end == std::string_view::npos) return -1;
    choices.remove_prefix(end + 1);
  }
}

// Reads "1/2/3". False unless there are exactly `count` numbers.
bool ReadValues(std::string_view text, int count, Vector3& values) {
  for (int i = 0; i < count; ++i) {
    const std::size_t end = i + 1 < count ? text.find('/') : text.size();
    if (end == std::string_view::npos) return false;
    const char* const last = text.data() + end;
    const auto [stop, error] =
        std::from_chars(text.data(), last, values[static_cast<std::size_t>(i)]);
    if (error != std::errc{} || stop != last || end == 0) return false;
    text.remove_prefix(i + 1 < count ? end + 1 : end);
  }
  return true;
}

}  // namespace

TunedFilter::TunedFilter(FilterType type, const char* name, std::span<const FilterParameter> table)
    : Filter(type), table_(table) {
  SetName(name);
  for (std::size_t row = 0; row < table.size(); ++row) values_[row] = table[row].standard;
}

// ---- Samples -------------------------------------------------------------------------------

TunedFilter::Step TunedFilter::StepTo(std::int64_t timeNs) {
  const std::int64_t step = timeNs - lastNs_;
  const bool follows = begun_ && step >= 0 && step <= kLongestStep;
  begun_ = true;
  lastNs_ = timeNs;
  return follows ? Step{static_cast<double>(step) * 1e-9, false} : Step{};
}

bool TunedFilter::FilterSample(PoseSample& sample) {
  Clean(sample);
  const PoseSample before = sample;
  const char* reason = Work(sample, StepTo(sample.timeNs));
  if (reason == nullptr && !IsWhole(sample)) {
    reason = "its result is not a number";
    begun_ = false;
  }
  if (reason == nullptr) return true;
  sample = before;
  Complain(sample, reason);
  return false;
}

void TunedFilter::Complain(const PoseSample& sample, const char* reason) {
  if (complained_ || statusLog_ == nullptr) return;
  complained_ = true;
  statusLog_->SetStatusF(StatusCode::Refused,
                         "Filter %s cannot work on sensor %d: %s. Poses pass unfiltered.",
                         GetName(), sample.sensor + 1, reason);
}

void TunedFilter::Restart() {
  begun_ = false;
  complained_ = false;
}

void TunedFilter::FilterPose(float p[3], float q[4]) {
  begun_ = false;
  PoseSample sample;
  std::copy_n(p, 3, sample.position.begin());
  std::copy_n(q, 4, sample.orientation.begin());
  sample.hasPosition = sample.hasOrientation = true;
  if (!FilterSample(sample)) return;
  const auto narrow = [](double value) { return static_cast<float>(value); };
  std::ranges::transform(sample.position, p, narrow);
  std::ranges::transform(sample.orientation, q, narrow);
}

// ---- Attributes ----------------------------------------------------------------------------

const FilterParameter* TunedFilter::RowOf(int id) const {
  return id >= 1 && static_cast<std::size_t>(id) <= table_.size()
             ? &table_[static_cast<std::size_t>(id - 1)]
             : nullptr;
}

bool TunedFilter::Set(int id, int count, const double* values) {
  const FilterParameter* const row = RowOf(id);
  if (row == nullptr || row->access != FilterParameter::Access::Settable) return false;
  if (count != row->count) return false;
  const bool inRange = std::all_of(values, values + count, [row](double value) {
    return value >= row->low && value <= row->high;  // false for NaN
  });
  if (!inRange) return false;
  std::copy_n(values, count, values_[static_cast<std::size_t>(id - 1)].begin());
  complained_ = false;
  ParametersChanged();
  return true;
}

bool TunedFilter::SetAttributeInt(int id, int value) {
  const FilterParameter* const row = RowOf(id);
  const double number = value;
  return row != nullptr && row->choices != nullptr && Set(id, 1, &number);
}

bool TunedFilter::SetAttributeDouble(int id, double value) {
  const FilterParameter* const row = RowOf(id);
  return row != nullptr && row->choices == nullptr && Set(id, 1, &value);
}

bool TunedFilter::SetAttributeFloatArray(int id, int count, const float* values) {
  const FilterParameter* const row = RowOf(id);
  if (values == nullptr || row == nullptr || row->choices != nullptr) return false;
  if (count != row->count) return false;
  Vector3 wide{};
  std::copy_n(values, count, wide.begin());
  return Set(id, count, wide.data());
}

bool TunedFilter::GetAttributeInt(int id, int* value) {
  const FilterParameter* const row = RowOf(id);
  if (value == nullptr || row == nullptr || row->choices == nullptr) return false;
  *value = static_cast<int>(Value(static_cast<std::size_t>(id - 1)));
  return true;
}

bool TunedFilter::GetAttributeDouble(int id, double* value) {
  const FilterParameter* const row = RowOf(id);
  if (value == nullptr || row == nullptr || row->choices != nullptr || row->count != 1) {
    return false;
  }
  *value = Value(static_cast<std::size_t>(id - 1));
  return true;
}

bool TunedFilter::GetAttributeFloatArray(int id, int count, float* values) {
  const FilterParameter* const row = RowOf(id);
  if (values == nullptr || row == nullptr || row->choices != nullptr || count != row->count) {
    return false;
  }
  const Vector3& own = Values(static_cast<std::size_t>(id - 1));
  std::transform(own.begin(), own.begin() + count, values,
                 [](double value) { return static_cast<float>(value); });
  return true;
}

bool TunedFilter::GetAttributeString(int id, int size, char* text) {
  if (text == nullptr || size <= 0 || id != 0) return false;
  CopyUpTo(text, size, GetName());
  return true;
}

bool TunedFilter::GetNumAvailableAttributes(int* count) {
  if (count == nullptr) return false;
  *count = static_cast<int>(table_.size()) + 1;
  return true;
}

bool TunedFilter::GetAvailableAttributes(int count, AttributeInfo* rows) {
  std::array<AttributeInfo, kMostRows + 1> all{};
  all[0] = {0, AttributeType::Text, AttributeInfo::kTextCount, "Filter Description"};
  for (std::size_t row = 0; row < table_.size(); ++row) {
    AttributeInfo& info = all[row + 1];
    info.id = static_cast<int>(row) + 1;
    info.valueType = table_[row].choices != nullptr ? AttributeType::Number : AttributeType::Floats;
    info.count = table_[row].count;
    std::snprintf(info.name, sizeof info.name, "%s", table_[row].name);
  }
  return CopyAttributeRows(std::span(all).first(table_.size() + 1), count, rows);
}

// ---- By name -------------------------------------------------------------------------------

bool TunedFilter::Complete(std::string&) { return true; }

std::string TunedFilter::NamesOfParameters() const {
  std::string names;
  for (const FilterParameter& row : table_) {
    if (row.access == FilterParameter::Access::Settable) names += ' ' + std::string(row.name);
  }
  return names;
}

bool TunedFilter::SetByName(std::string_view name, std::string_view value, std::string& error) {
  const auto row = std::ranges::find_if(table_, [name](const FilterParameter& candidate) {
    return candidate.name == name && candidate.access == FilterParameter::Access::Settable;
  });
  if (row == table_.end()) {
    error = std::string(GetName()) + " has no parameter \"" + std::string(name) + "\". It has" +
            NamesOfParameters() + '.';
    return false;
  }
  const int id = static_cast<int>(row - table_.begin()) + 1;
  if (row->choices != nullptr) {
    const double number = ChoiceOf(row->choices, value);
    if (Set(id, 1, &number)) return true;
    error = std::string(name) + " must be one of " + row->choices + '.';
    return false;
  }
  Vector3 values{};
  if (ReadValues(value, row->count, values) && Set(id, row->count, values.data())) return true;
  char text[160];
  std::snprintf(text, sizeof text, "%s takes %d number%s from %g to %g%s.", row->name, row->count,
                row->count == 1 ? "" : "s", row->low, row->high,
                row->count == 1 ? "" : ", separated by '/'");
  error = text;
  return false;
}

}  // namespace kinetrel

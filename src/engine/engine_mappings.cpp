// The part of TrackerEngine that a host program reaches by a mapping's key: the mapping table, the
// filters of each mapping, and the data published for it.

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "devices/bounded_text.h"
#include "engine/control_call.h"
#include "engine/tracker_engine.h"
#include "filters/filter_option.h"
#include "publish/shared_track_reader.h"
#include "publish/shared_track_writer.h"

namespace kinetrel {
namespace {

constexpr int kMappingItself = -1;  // in the place of a filter's index

constexpr AttributeInfo kMappingAttributes[] = {
    {0, AttributeType::Text, AttributeInfo::kTextCount, "Mapping Name"},
    {1, AttributeType::Floats, 3, "Position"},
    {2, AttributeType::Floats, 3, "Euler"},
    {3, AttributeType::Floats, 4, "Quaternion"},
    {4, AttributeType::Number, 1, "Digital"},
    {5, AttributeType::Number, 1, "Frame Count"},
    {6, AttributeType::Floats, 4, "Frame Rate"},
    {7, AttributeType::Floats, 4, "Latency"},
};

bool IsDestination(const int key[3]) {
  return key[1] >= 0 && key[1] < kSharedBins && key[2] >= 0 && key[2] < kPoseSlots;
}

// ---- Published components --------------------------------------------------------------------

// The components that are read from the block of the mapping's bin.
struct ComponentRow {
  MappingAttribute id;
  int count;
  const char* wrongCount;
  bool (*get)(const SharedTrackBlock& block, int slot, float* values);
};
constexpr ComponentRow kComponentRows[] = {
    {MappingAttribute::Position, 3, "MappingPosition: num_vec must be 3.", PositionOf},
    {MappingAttribute::Euler, 3, "MappingEuler: num_vec must be 3.", EulerOf},
    {MappingAttribute::Orientation, 4, "MappingQuaternion: num_vec must be 4.", QuaternionOf},
};

struct StatisticRow {
  MappingAttribute id;
  const char* wrongCount;
  RunningStats Mapping::*statistic;
};
constexpr StatisticRow kStatisticRows[] = {
    {MappingAttribute::FrameRate, "MappingFrameRate: num_vec must be between 1 and 4.",
     &Mapping::rate},
    {MappingAttribute::Latency, "MappingLatency: num_vec must be between 1 and 4.",
     &Mapping::latency},
};

bool GetStatistic(const RunningStats& statistic, int count, float* values) {
  if (statistic.GetCount() < 2) return false;
  const std::array<double, 4> all = {statistic.GetMean(), statistic.GetStdDev(), statistic.GetMin(),
                                     statistic.GetMax()};
  std::transform(all.begin(), all.begin() + count, values,
                 [](double value) { return static_cast<float>(value); });
  return true;
}

// Both readers of published data use this name in their messages: kept for compatibility.
bool RefusePublished(ControlCall& call, const char* reason) {
  call.state().status.SetStatusF(StatusCode::Refused, "GetFilterAttributeInt: %s", reason);
  return false;
}

// Copies the bin in which the mapping is published. The mapping keeps the reader, so the last
// published data stays readable after sampling has ended. The engine's lock is held meanwhile, so a
// bin that another program keeps is waited for once, and then only tried until it is free again.
bool ReadPublished(ControlCall& call, const int key[3], Mapping& mapping, SharedTrackBlock& into) {
  constexpr const char* kFailed = "Unable to open shared memory to desired mapping.";
  if (key[0] < 0 || key[0] >= kSharedDevices) return RefusePublished(call, kFailed);
  if (mapping.reader == nullptr || mapping.reader->device() != key[0]) {
    mapping.reader = std::make_unique<SharedTrackReader>(key[0]);
  }
  SharedTrackReader& reader = *mapping.reader;
  const bool open = reader.SelectBin(key[1]) == key[1] && reader.block() != nullptr;
  const Milliseconds patience = mapping.held ? Milliseconds(0) : SharedTrackWriter::kPatience;
  if (!open && !reader.OpenOnly(key[1])) return RefusePublished(call, kFailed);
  mapping.held = !reader.Copy(into, patience);
  return !mapping.held || RefusePublished(call, kFailed);
}

}  // namespace

// ---- The table -------------------------------------------------------------------------------

bool TrackerEngine::GetMappingSize(int* count) {
  ControlCall call(*state_, "GetMappingSize");
  if (!call.IsOpen() || count == nullptr) return false;
  *count = static_cast<int>(state_->mappings.size());
  return true;
}

bool TrackerEngine::GetMappingList(int count, int* keys) {
  ControlCall call(*state_, "GetMappingList");
  if (!call.IsOpen()) return false;
  if (count != static_cast<int>(state_->mappings.size())) {
    return call.Refuse("Invalid mapping size requested");
  }
  if (count > 0 && !call.IsGiven(keys, "keys")) return false;
  for (const auto& [key, mapping] : state_->mappings) {
    *keys++ = key.shmDevice;
    *keys++ = key.bin;
    *keys++ = key.poseIndex;
  }
  return true;
}

bool TrackerEngine::GetMapping(const int key[3], int* sensor) {
  ControlCall call(*state_, "GetMapping");
  if (!call.IsOpen() || sensor == nullptr) return false;
  const Mapping* const mapping = call.FindMapping(key);
  if (mapping == nullptr) return false;
  *sensor = mapping->sensor;
  return true;
}

bool TrackerEngine::SetMapping(const int key[3], int sensor) {
  ControlCall call(*state_, "SetMapping");
  if (!call.IsOpen() || !call.IsGiven(key, "key")) return false;
  const MappingKey here = {state_->config.shmDevice, key[1], key[2]};
  if (sensor < 0) {
    state_->mappings.erase(here);
    state_->filters.Remove(here);
    return true;
  }
  // A destination or a sensor that can never be published is a mistake of the host.
  if (!IsDestination(key) || sensor >= kPoseSlots) return call.Refuse("Invalid Mapping");
  state_->MapSensor(here, sensor);
  return true;
}

// ---- Filters ---------------------------------------------------------------------------------

int TrackerEngine::AddFilter(const int key[3], int filterType) {
  ControlCall call(*state_, "AddFilter");
  if (!call.IsOpen()) return 0;
  if (!call.IsGiven(key, "key")) return -1;
  if (!IsDestination(key)) call.Refuse("Invalid Mapping");
  if (!IsDestination(key)) return -1;
  state_->MappingAt(KeyFrom(key));
  return call.UseFilters(key).AddFilter(filterType);
}

// The filter is made before the filters are locked: it may read a file.
int TrackerEngine::AddFilterNamed(const int key[3], const char* text) {
  std::string error;
  std::unique_ptr<Filter> filter = text != nullptr ? MakeFilter(text, error) : nullptr;
  ControlCall call(*state_, "AddFilterNamed");
  if (!call.IsOpen() || !call.IsGiven(text, "text") || call.FindMapping(key) == nullptr) return -1;
  if (filter == nullptr) {
    call.Refuse(error.c_str());
    return -1;
  }
  LogDescription(state_->status, *filter);
  return call.UseFilters(key).Append(std::move(filter));
}

bool TrackerEngine::ClearFilters(const int key[3]) {
  ControlCall call(*state_, "ClearFilters");
  if (!call.IsOpen() || !call.IsGiven(key, "key")) return false;
  if (!IsDestination(key)) return call.Refuse("Invalid Mapping");
  state_->MappingAt(KeyFrom(key));
  call.UseFilters(key).ClearFilters();
  return true;
}

bool TrackerEngine::ClearFilter(const int key[3], int index) {
  ControlCall call(*state_, "ClearFilter");
  FilterChain* const filters = call.IsOpen() ? call.FindFilters(key) : nullptr;
  return filters != nullptr && filters->RemoveFilter(index);
}

bool TrackerEngine::GetNumFilters(const int key[3], int* count) {
  ControlCall call(*state_, "GetNumFilters");
  if (!call.IsOpen() || count == nullptr) return false;
  FilterChain* const filters = call.FindFilters(key);
  if (filters == nullptr) return false;
  *count = filters->GetNumFilters();
  return true;
}

bool TrackerEngine::GetFilterType(const int key[3], int index, int* type) {
  ControlCall call(*state_, "GetFilterType");
  if (!call.IsOpen() || type == nullptr) return false;
  Filter* const filter = call.FindFilter(key, index);
  if (filter == nullptr) return false;
  *type = static_cast<int>(filter->GetType());
  return true;
}

bool TrackerEngine::MoveFilter(const int key[3], int index, bool up) {
  ControlCall call(*state_, "MoveFilter");
  FilterChain* const filters = call.IsOpen() ? call.FindFilters(key) : nullptr;
  return filters != nullptr && filters->MoveFilter(index, up);
}

bool TrackerEngine::EnableFilter(const int key[3], int index, bool enable) {
  ControlCall call(*state_, "EnableFilter");
  Filter* const filter = call.IsOpen() ? call.FindFilter(key, index) : nullptr;
  if (filter == nullptr) return false;
  filter->Enable(enable);
  return true;
}

bool TrackerEngine::GetFilterEnabled(const int key[3], int index, bool* enabled) {
  ControlCall call(*state_, "GetFilterEnabled");
  if (!call.IsOpen() || enabled == nullptr) return false;
  Filter* const filter = call.FindFilter(key, index);
  if (filter == nullptr) return false;
  *enabled = filter->IsEnabled();
  return true;
}

// ---- Filter attributes -----------------------------------------------------------------------

// Finds the filter whose attribute is to be set. The attributes of a mapping itself cannot be set;
// the message is the same for every type.
Filter* TrackerEngine::SettableFilter(ControlCall& call, const int key[3], int index) {
  Mapping* const mapping = call.FindMapping(key);
  if (mapping == nullptr) return nullptr;
  if (index != kMappingItself) return call.FindFilter(key, index);
  state_->status.SetStatus(StatusCode::Refused,
                           "SetFilterAttributeInt: No settable Mapping Attributes");
  return nullptr;
}

bool TrackerEngine::SetFilterAttributeInt(const int key[3], int index, int id, int value) {
  ControlCall call(*state_, "SetFilterAttributeInt");
  if (!state_->isOpen) {
    state_->status.SetStatus(StatusCode::Refused, "GetFilterAttributeInt: MTS Not Open");
    return false;
  }
  Filter* const filter = SettableFilter(call, key, index);
  return filter != nullptr && filter->SetAttributeInt(id, value);
}

bool TrackerEngine::SetFilterAttributeDouble(const int key[3], int index, int id, double value) {
  ControlCall call(*state_, "SetFilterAttributeDouble");
  Filter* const filter = call.IsOpen() ? SettableFilter(call, key, index) : nullptr;
  return filter != nullptr && filter->SetAttributeDouble(id, value);
}

bool TrackerEngine::SetFilterAttributeFloatArray(const int key[3], int index, int id, int count,
                                                 const float* values) {
  ControlCall call(*state_, "SetFilterAttributeFloatArray");
  Filter* const filter = call.IsOpen() ? SettableFilter(call, key, index) : nullptr;
  return filter != nullptr && filter->SetAttributeFloatArray(id, count, values);
}

bool TrackerEngine::SetFilterAttributeString(const int key[3], int index, int id,
                                             const char* text) {
  ControlCall call(*state_, "SetFilterAttributeString");
  Filter* const filter = call.IsOpen() ? SettableFilter(call, key, index) : nullptr;
  if (filter == nullptr || !call.IsGiven(text, "str")) return false;
  return filter->SetAttributeString(id, static_cast<int>(std::strlen(text)), text);
}

bool TrackerEngine::GetFilterAttributeInt(const int key[3], int index, int id, int* value) {
  ControlCall call(*state_, "GetFilterAttributeInt");
  if (!call.IsOpen() || !call.IsGiven(value, "val")) return false;
  Mapping* const mapping = call.FindMapping(key);
  if (mapping == nullptr) return false;
  if (index != kMappingItself) {
    Filter* const filter = call.FindFilter(key, index);
    return filter != nullptr && filter->GetAttributeInt(id, value);
  }
  const bool digital = id == static_cast<int>(MappingAttribute::Digital);
  if (!digital && id != static_cast<int>(MappingAttribute::FrameCount)) {
    return call.Refuse("Invalid Attribute");
  }
  SharedTrackBlock block;
  if (!ReadPublished(call, key, *mapping, block)) return false;
  *value = digital ? static_cast<int>(block.buttons) : block.frameCount;
  return true;
}

bool TrackerEngine::GetFilterAttributeDouble(const int key[3], int index, int id, double* value) {
  ControlCall call(*state_, "GetFilterAttributeDouble");
  if (!call.IsOpen() || !call.IsGiven(value, "val")) return false;
  Mapping* const mapping = call.FindMapping(key);
  if (mapping == nullptr) return false;
  if (index == kMappingItself) return call.Refuse("Invalid Attribute");
  Filter* const filter = call.FindFilter(key, index);
  return filter != nullptr && filter->GetAttributeDouble(id, value);
}

bool TrackerEngine::GetFilterAttributeFloatArray(const int key[3], int index, int id, int count,
                                                 float* values) {
  ControlCall call(*state_, "GetFilterAttributeFloatArray");
  if (!call.IsOpen() || !call.IsGiven(values, "vec")) return false;
  Mapping* const mapping = call.FindMapping(key);
  if (mapping == nullptr) return false;
  if (index == kMappingItself) return GetMappingFloats(call, key, *mapping, id, count, values);
  Filter* const filter = call.FindFilter(key, index);
  return filter != nullptr && filter->GetAttributeFloatArray(id, count, values);
}

bool TrackerEngine::GetMappingFloats(ControlCall& call, const int key[3], Mapping& mapping, int id,
                                     int count, float* values) {
  const ComponentRow* const component = FindRow(kComponentRows, id);
  const StatisticRow* const statistic = FindRow(kStatisticRows, id);
  if (component == nullptr && statistic == nullptr) return call.Refuse("Invalid Attribute");
  SharedTrackBlock block;
  if (!ReadPublished(call, key, mapping, block)) return false;
  if (component != nullptr) {
    if (count != component->count) return RefusePublished(call, component->wrongCount);
    return component->get(block, key[2], values);
  }
  if (count < 1 || count > 4) return RefusePublished(call, statistic->wrongCount);
  return GetStatistic(mapping.*(statistic->statistic), count, values);
}

bool TrackerEngine::GetFilterAttributeString(const int key[3], int index, int id, int size,
                                             char* text) {
  ControlCall call(*state_, "GetFilterAttributeString");
  if (!call.IsOpen() || !call.IsGiven(text, "str")) return false;
  Mapping* const mapping = call.FindMapping(key);
  if (mapping == nullptr) return false;
  if (index != kMappingItself) {
    Filter* const filter = call.FindFilter(key, index);
    return filter != nullptr && filter->GetAttributeString(id, size, text);
  }
  if (id != static_cast<int>(MappingAttribute::Name)) return call.Refuse("Invalid Attribute");
  CopyUpTo(text, size, kMappingAttributes[0].name);
  return true;
}

bool TrackerEngine::GetNumAvailableFilterAttributes(const int key[3], int index, int* count) {
  ControlCall call(*state_, "GetNumAvailableFilterAttributes");
  if (!call.IsOpen() || !call.IsGiven(count, "num_attrs")) return false;
  Mapping* const mapping = call.FindMapping(key);
  if (mapping == nullptr) return false;
  if (index == kMappingItself) {
    *count = static_cast<int>(std::size(kMappingAttributes));
    return true;
  }
  Filter* const filter = call.FindFilter(key, index);
  return filter != nullptr && filter->GetNumAvailableAttributes(count);
}

bool TrackerEngine::GetAvailableFilterAttributes(const int key[3], int index, int count,
                                                 AttributeInfo* rows) {
  ControlCall call(*state_, "GetAvailableFilterAttributes");
  if (!call.IsOpen() || !call.IsGiven(rows, "attrs")) return false;
  Mapping* const mapping = call.FindMapping(key);
  if (mapping == nullptr) return false;
  if (index == kMappingItself) return CopyAttributeRows(kMappingAttributes, count, rows);
  Filter* const filter = call.FindFilter(key, index);
  return filter != nullptr && filter->GetAvailableAttributes(count, rows);
}

}  // namespace kinetrel

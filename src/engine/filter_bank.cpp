#include "engine/filter_bank.h"

#include <algorithm>
#include <utility>

namespace kinetrel {

// ---- Control calls ---------------------------------------------------------------------------

void FilterBank::SetSensor(const MappingKey& key, int sensor) {
  const Lock held(mutex);
  Entry& entry = entries_[key];
  if (entry.sensor == sensor) return;
  entry.sensor = sensor;
  entry.newest.reset();
  entry.chain.Restart();
}

void FilterBank::Remove(const MappingKey& key) {
  const Lock held(mutex);
  entries_.erase(key);
  Changed();
}

void FilterBank::Clear() {
  const Lock held(mutex);
  entries_.clear();
  Changed();
}

FilterChain& FilterBank::ChainOf(const MappingKey& key) {
  FilterChain& chain = entries_[key].chain;
  chain.SetStatusLog(&log_);
  return chain;
}

void FilterBank::Changed() {
  int filters = 0;
  for (auto& [key, entry] : entries_) {
    const int own = entry.chain.GetNumFilters();
    if (own == 0) entry.newest.reset();
    filters += own;
  }
  filters_.store(filters, std::memory_order_relaxed);
}

// ---- Sampling thread -------------------------------------------------------------------------

void FilterBank::Begin(unsigned run) {
  const Lock held(mutex);
  run_ = run;
  for (auto& [key, entry] : entries_) {
    entry.newest.reset();
    entry.chain.Restart();
  }
}

void FilterBank::Entry::Work(const PoseSample& own) {
  newest.emplace().sample = own;
  if (!chain.IsEnabled()) return;
  newest->whole = chain.FilterSample(newest->sample);
  newest->lag = chain.Lag();
}

std::optional<FilteredPose> FilterBank::Filter(unsigned run, const PoseSample& own) {
  if (IsEmpty()) return std::nullopt;
  std::optional<FilteredPose> first;
  const Lock held(mutex);
  if (run != run_) return std::nullopt;
  for (auto& [key, entry] : entries_) {
    if (entry.sensor != own.sensor || entry.chain.GetNumFilters() == 0) continue;
    entry.Work(own);
    entry.gaveUp = false;
    if (!first.has_value()) first = entry.newest;
  }
  return first;
}

std::optional<FilteredPose> FilterBank::FilterMissing(unsigned run, int sensor,
                                                      std::int64_t timeNs) {
  if (IsEmpty()) return std::nullopt;
  std::optional<FilteredPose> first;
  bool shown = false;  // the first mapping with a filter was there
  const Lock held(mutex);
  if (run != run_) return std::nullopt;
  for (auto& [key, entry] : entries_) {
    if (entry.sensor != sensor || entry.chain.GetNumFilters() == 0) continue;
    const bool isFirst = !std::exchange(shown, true);
    const bool bridges = entry.chain.IsEnabled() && entry.chain.BridgesGaps();
    if (!bridges || !entry.newest.has_value() || entry.gaveUp) continue;
    PoseSample missing;
    missing.timeNs = std::max(timeNs, entry.newest->sample.timeNs);  // never backwards
    missing.sensor = sensor;
    missing.metresPerUnit = entry.newest->sample.metresPerUnit;
    entry.Work(missing);
    entry.gaveUp = !entry.newest->sample.hasPosition && !entry.newest->sample.hasOrientation;
    if (isFirst) first = entry.newest;
  }
  return first;
}

std::optional<FilteredPose> FilterBank::NewestOf(const MappingKey& key) {
  if (IsEmpty()) return std::nullopt;
  const Lock held(mutex);
  const auto entry = entries_.find(key);
  return entry != entries_.end() ? entry->second.newest : std::nullopt;
}

}  // namespace kinetrel

#include "filters/filter_chain.h"

#include <algorithm>
#include <utility>

namespace kinetrel {
namespace {

using Filters = std::vector<std::unique_ptr<Filter>>;

Filters Clones(const Filters& filters) {
  Filters clones;
  clones.reserve(filters.size());
  for (const auto& filter : filters) clones.push_back(filter->Clone());
  return clones;
}

}  // namespace

FilterChain::FilterChain(const FilterChain& other)
    : Filter(other), filters_(Clones(other.filters_)) {}

// Clones first, because a chain may be assigned to itself.
FilterChain& FilterChain::operator=(const FilterChain& other) {
  filters_ = Clones(other.filters_);
  Filter::operator=(other);
  return *this;
}

std::unique_ptr<Filter> FilterChain::Clone() const { return std::make_unique<FilterChain>(*this); }

void FilterChain::FilterPose(float p[3], float q[4]) {
  for (const auto& filter : filters_) filter->SetPose(p, q);
}

bool FilterChain::FilterSample(PoseSample& sample) {
  bool all = true;
  for (const auto& filter : filters_) {
    if (filter->IsEnabled() && !filter->FilterSample(sample)) all = false;
  }
  return all;
}

void FilterChain::Restart() {
  for (const auto& filter : filters_) filter->Restart();
}

bool FilterChain::BridgesGaps() const {
  return std::ranges::any_of(
      filters_, [](const auto& filter) { return filter->IsEnabled() && filter->BridgesGaps(); });
}

double FilterChain::Lag() const {
  double lag = 0.0;
  for (const auto& filter : filters_) {
    if (filter->IsEnabled()) lag += filter->Lag();
  }
  return lag;
}

int FilterChain::AddFilter(int) { return -1; }

int FilterChain::Append(std::unique_ptr<Filter> filter) {
  if (filter == nullptr) return -1;
  filter->SetStatusLog(statusLog_);
  filters_.push_back(std::move(filter));
  return GetNumFilters() - 1;
}

Filter* FilterChain::GetFilter(int index) {
  return HasFilter(index) ? filters_[static_cast<std::size_t>(index)].get() : nullptr;
}

bool FilterChain::RemoveFilter(int index) {
  if (!HasFilter(index)) return false;
  filters_.erase(filters_.begin() + index);
  return true;
}

void FilterChain::ClearFilters() { filters_.clear(); }

// "Cuurrent" is kept for compatibility: hosts compare with it.
bool FilterChain::MoveFilter(int index, bool up) {
  if (!HasFilter(index)) {
    if (statusLog_ != nullptr) {
      statusLog_->SetStatusF(StatusCode::Refused,
                             "Filter index %d invalid.  Cuurrent filter list size: %d.", index,
                             GetNumFilters());
    }
    return false;
  }
  const int target = up ? index - 1 : index + 1;
  if (!HasFilter(target)) {
    if (statusLog_ != nullptr) {
      statusLog_->SetStatusF(StatusCode::Refused,
                             "Unable to move index %d %s.  Cuurrent filter list size: %d.", index,
                             up ? "up" : "down", GetNumFilters());
    }
    return false;
  }
  std::swap(filters_[static_cast<std::size_t>(index)], filters_[static_cast<std::size_t>(target)]);
  return true;
}

}  // namespace kinetrel

// A list of filters: a pose goes through them one after the other. A disabled filter leaves it
// unchanged. Every mapping of the engine owns a chain.
#pragma once

#include <memory>
#include <vector>

#include "filters/filter.h"

namespace kinetrel {

class FilterChain final : public Filter {
 public:
  FilterChain() : Filter(FilterType::Chain) {}

  // The copy holds clones. An assignment deletes the filters that its target held.
  FilterChain(const FilterChain& other);
  FilterChain& operator=(const FilterChain& other);

  std::unique_ptr<Filter> Clone() const override;
  void FilterPose(float p[3], float q[4]) override;

  // False if one of its enabled filters could not work; the others have.
  bool FilterSample(PoseSample& sample) override;
  void Restart() override;
  bool BridgesGaps() const override;  // one of its enabled filters does
  double Lag() const override;        // of its enabled filters together

  // ---- The list; the first filter has index 0 and is applied first -------------------------

  // Adds a filter of that type at the end of the list and returns its index. No type can be added
  // by number yet: always -1, and the list stays unchanged.
  int AddFilter(int filterType);
  // Returns the filter's index; -1 for null. The filter logs where the chain does.
  int Append(std::unique_ptr<Filter> filter);

  Filter* GetFilter(int index);  // null if out of range; valid until the list changes
  int GetNumFilters() const { return static_cast<int>(filters_.size()); }
  bool RemoveFilter(int index);  // deletes the filter; false if out of range
  void ClearFilters();

  // Swaps a filter with the one before it (`up`) or after it. If either does not exist: false, and
  // a line in the status log.
  bool MoveFilter(int index, bool up);

 private:
  bool HasFilter(int index) const { return index >= 0 && index < GetNumFilters(); }

  std::vector<std::unique_ptr<Filter>> filters_;
};

}  // namespace kinetrel

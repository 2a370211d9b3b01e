// A filter that is a list of filters: a pose goes through them one after the other. A disabled one
// lets it pass. Every mapping of the engine owns a chain.
#pragma once

#include <memory>
#include <vector>

#include "filters/filter.h"

namespace kinetrel {

class FilterChain final : public Filter {
 public:
  FilterChain() : Filter(FilterType::Chain) {}

  // The copy holds clones. Filters that the target of an assignment held are deleted.
  FilterChain(const FilterChain& other);
  FilterChain& operator=(const FilterChain& other);

  std::unique_ptr<Filter> Clone() const override;
  void FilterPose(float p[3], float q[4]) override;

  // ---- The list; the first filter has index 0 and is applied first -------------------------

  // Makes a filter of that type at the end of the list and returns its index. No type can be made
  // by number yet, so it is -1 for all, and the list stays.
  int AddFilter(int filterType);
  int Append(std::unique_ptr<Filter> filter);  // its index; -1 for none

  Filter* GetFilter(int index);  // null for an index out of range; good until the list changes
  int GetNumFilters() const { return static_cast<int>(filters_.size()); }
  bool RemoveFilter(int index);  // false for an index out of range; deletes the filter
  void ClearFilters();

  // Changes places with the filter before (`up`) or after. False, and a line in the status log,
  // when there is no such filter or no such place.
  bool MoveFilter(int index, bool up);

 private:
  bool Has(int index) const { return index >= 0 && index < GetNumFilters(); }

  std::vector<std::unique_ptr<Filter>> filters_;
};

}  // namespace kinetrel

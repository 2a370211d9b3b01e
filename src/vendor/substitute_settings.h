// What our substitutes for the vendors' libraries are told by environment variables. Each variable
// is read anew at each call. isense_library.cpp and pdi_library.cpp list the variables.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kinetrel::substitute {

// The variable's text; empty when it is not set.
std::string_view Setting(const char* variable);

// The variable as a number; `fallback` when it is not set.
double NumberSetting(const char* variable, double fallback);

// One fault that a substitute is told to play: an item "<name>[@<first>[+<count>]]" of a list.
struct PlannedFault {
  static constexpr std::uint64_t kAll = ~std::uint64_t{0};

  std::string_view name;
  std::uint64_t first = 0;     // the number of the first call, frame or period concerned
  std::uint64_t count = kAll;  // how many of them

  bool Covers(std::uint64_t number) const { return number >= first && number - first < count; }
};

// Removes the first item from the comma-separated `list` and returns it; nothing for an empty list.
std::optional<PlannedFault> NextPlannedFault(std::string_view& list);

}  // namespace kinetrel::substitute

// How fast a count goes up, over about the last two seconds.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace kinetrel {

class RateMeter {
 public:
  // The count is `count` at `now` (seconds). A count that went back begins the measurement anew.
  void Add(double now, std::int32_t count);

  // In a second; nothing before there is half a second to tell it from.
  std::optional<double> PerSecond() const;

 private:
  struct Mark {
    double time = 0;
    std::int32_t count = 0;
  };

  void DropOldest();

  std::array<Mark, 64> marks_;  // oldest first
  std::size_t used_ = 0;
  Mark newest_;
};

}  // namespace kinetrel

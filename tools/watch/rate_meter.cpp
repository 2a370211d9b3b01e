#include "watch/rate_meter.h"

#include <algorithm>

namespace kinetrel {
namespace {

constexpr double kWindow = 2;
constexpr double kLeastSpan = 0.5;
constexpr double kMarkDistance = 0.05;

// Unsigned: the count may go round.
std::int32_t Advance(std::int32_t from, std::int32_t to) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(to) -
                                   static_cast<std::uint32_t>(from));
}

}  // namespace

void RateMeter::Add(double now, std::int32_t count) {
  if (used_ > 0 && Advance(newest_.count, count) < 0) used_ = 0;
  newest_ = {now, count};
  // Two old marks: the second alone spans the window.
  while (used_ >= 2 && marks_[1].time <= now - kWindow) DropOldest();
  if (used_ > 0 && now - marks_[used_ - 1].time < kMarkDistance) return;
  if (used_ == marks_.size()) DropOldest();
  marks_[used_++] = newest_;
}

void RateMeter::DropOldest() {
  std::copy(marks_.begin() + 1, marks_.begin() + static_cast<std::ptrdiff_t>(used_),
            marks_.begin());
  --used_;
}

std::optional<double> RateMeter::PerSecond() const {
  if (used_ == 0 || newest_.time - marks_[0].time < kLeastSpan) return {};
  return Advance(marks_[0].count, newest_.count) / (newest_.time - marks_[0].time);
}

}  // namespace kinetrel

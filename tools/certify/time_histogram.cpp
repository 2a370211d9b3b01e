#include "certify/time_histogram.h"

#include <bit>

namespace kinetrel::certify {
namespace {

constexpr int kBits = 7;  // of the place within an octave
constexpr std::size_t kPlaces = std::size_t{1} << kBits;
constexpr std::size_t kClasses = (63 - kBits + 1) * kPlaces;

}  // namespace

TimeHistogram::TimeHistogram() : counts_(kClasses) {}

// Numbers of up to 8 bits are their class; of larger ones the first 8 bits and the length count.
std::size_t TimeHistogram::ClassOf(std::uint64_t ns) {
  const int shift = std::max(static_cast<int>(std::bit_width(ns)) - kBits - 1, 0);
  return static_cast<std::size_t>(shift) * kPlaces + static_cast<std::size_t>(ns >> shift);
}

double TimeHistogram::BeginOf(std::size_t index) {
  if (index < 2 * kPlaces) return static_cast<double>(index);
  const std::size_t shift = index / kPlaces - 1;
  return std::ldexp(static_cast<double>(index - shift * kPlaces), static_cast<int>(shift));
}

void TimeHistogram::Add(std::int64_t ns) {
  const std::int64_t time = std::max<std::int64_t>(ns, 0);
  ++counts_[ClassOf(static_cast<std::uint64_t>(time))];
  spread_.Add(static_cast<double>(time));
}

double TimeHistogram::Quantile(double share) const {
  if (count() == 0) return 0.0;
  const double wanted = share * static_cast<double>(count());
  double below = 0.0;
  for (std::size_t i = 0; i < counts_.size(); ++i) {
    const auto here = static_cast<double>(counts_[i]);
    if (here == 0.0 || below + here < wanted) {
      below += here;
      continue;
    }
    const double begin = BeginOf(i);
    const double within = begin + (wanted - below) / here * (BeginOf(i + 1) - begin);
    return std::clamp(within, spread_.low(), spread_.high());
  }
  return spread_.high();
}

double TimeHistogram::CountBelow(double ns) const {
  if (count() == 0 || ns <= spread_.low()) return 0.0;
  if (ns > spread_.high()) return static_cast<double>(count());
  const std::size_t last = ClassOf(static_cast<std::uint64_t>(ns));
  double below = 0.0;
  for (std::size_t i = 0; i < last; ++i) below += static_cast<double>(counts_[i]);
  const double begin = BeginOf(last);
  return below + static_cast<double>(counts_[last]) * (ns - begin) / (BeginOf(last + 1) - begin);
}

}  // namespace kinetrel::certify

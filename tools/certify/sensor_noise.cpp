#include "certify/sensor_noise.h"

#include <algorithm>

namespace kinetrel::certify {
namespace {

constexpr std::int64_t kSectionNs = 1'000'000'000;
constexpr std::uint64_t kSectionPoses = 10;
constexpr double kDeviationsOfAMean = 8;
constexpr double kLeastStepShare = 1.0 / 50;

template <typename Number, std::size_t count>
bool AllFinite(const Number (&numbers)[count]) {
  return std::all_of(numbers, numbers + count, [](Number each) { return std::isfinite(each); });
}

}  // namespace

void AxisNoise::Add(double value) {
  if (all_.count() > 0) steps_ += (value - last_) * (value - last_);
  last_ = value;
  all_.Add(value);
  section_.Add(value);
}

void AxisNoise::EndSection() {
  if (section_.count() >= kSectionPoses) {
    means_.Add(section_.mean());
    within_ += section_.squares();
    freedom_ += static_cast<double>(section_.count() - 1);
    smallest_ = smallest_ == 0 ? section_.count() : std::min(smallest_, section_.count());
  }
  section_ = {};
}

bool AxisNoise::IsStill(double tolerance) const {
  const double ofAMean = std::sqrt(within_ / freedom_ / static_cast<double>(smallest_));
  const double allowed = std::max(tolerance, kDeviationsOfAMean * ofAMean);
  if (means_.count() < 1 || !(means_.high() - means_.low() <= allowed)) return false;
  const double deviation = all_.Deviation();
  const double halfStep = steps_ / 2 / static_cast<double>(all_.count() - 1);
  return deviation <= tolerance || halfStep >= kLeastStepShare * deviation * deviation;
}

void SensorNoise::Add(const kinetrel_record& record) {
  ++poses_;
  ++inSection_;
  if ((record.flags & kinetrel_filtered) != 0) ++filtered_;
  if (poses_ == 1) sectionStart_ = record.sample_ns;
  const auto since = static_cast<std::int64_t>(static_cast<std::uint64_t>(record.sample_ns) -
                                               static_cast<std::uint64_t>(sectionStart_));
  if (inSection_ > kSectionPoses && (since >= kSectionNs || since < 0)) {
    for (AxisNoise& axis : position_) axis.EndSection();
    for (AxisNoise& axis : turn_) axis.EndSection();
    sectionStart_ = record.sample_ns;
    inSection_ = 1;
  }
  if ((record.flags & kinetrel_position_valid) != 0 && AllFinite(record.position)) {
    for (std::size_t i = 0; i < 3; ++i) position_[i].Add(record.position[i]);
  }
  if ((record.flags & kinetrel_orientation_valid) == 0 || !AllFinite(record.orientation)) return;
  const Rotation raw = {double{record.orientation[0]}, double{record.orientation[1]},
                        double{record.orientation[2]}, double{record.orientation[3]}};
  const Rotation shown = AtUnitLength(raw);
  if (!std::isfinite(shown[0])) return;
  if (turn_[0].all().count() == 0) reference_ = shown;
  const Vector3 turn = ToTurn(shown * Inverse(reference_));
  for (std::size_t i = 0; i < 3; ++i) turn_[i].Add(turn[i]);
}

Held SensorNoise::HeldOf(const std::array<AxisNoise, 3>& axes, double tolerance) {
  if (axes[0].all().count() <= 2 * kSectionPoses) return Held::Unknown;
  for (AxisNoise axis : axes) {
    axis.EndSection();
    if (!axis.IsStill(tolerance)) return Held::Moved;
  }
  return Held::Still;
}

}  // namespace kinetrel::certify

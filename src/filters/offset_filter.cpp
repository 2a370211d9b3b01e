#include "filters/offset_filter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <span>

namespace kinetrel {
namespace {

constexpr float kNegligible = std::numeric_limits<float>::epsilon();

constexpr AttributeInfo kAttributes[] = {
    {0, AttributeType::Text, AttributeInfo::kTextCount, "Filter Description"},
    {1, AttributeType::Floats, 3, "Position Offset"},
    {2, AttributeType::Floats, 3, "Euler Offset"},
    {3, AttributeType::Floats, 4, "Qtn Offset"},
    {4, AttributeType::Number, 1, "Pre-Transform"},
    {5, AttributeType::Number, 1, "Subtract"},
};

bool IsFloats(int id, int count) {
  return std::ranges::any_of(kAttributes, [=](const AttributeInfo& row) {
    return row.id == id && row.valueType == AttributeType::Floats && row.count == count;
  });
}

bool IsNotZero(float part) { return std::abs(part) >= kNegligible; }

std::array<float, 3> Scaled(const float angles[3], double factor) {
  std::array<float, 3> scaled{};
  std::transform(angles, angles + 3, scaled.begin(),
                 [=](float angle) { return static_cast<float>(angle * factor); });
  return scaled;
}

}  // namespace

OffsetFilter::OffsetFilter() : Filter(FilterType::Offset) { SetName("Offset Filter"); }

// ---- Passing a pose ------------------------------------------------------------------------

void OffsetFilter::SetEuler(float angles[3]) {
  if (!enabled_) return;
  const auto turns = std::ranges::count_if(eulerOffset_, IsNotZero);
  if (turns == 0) return;
  if (turns == 1) {
    const auto i = std::ranges::find_if(eulerOffset_, IsNotZero) - eulerOffset_.begin();
    angles[i] += subtract_ ? -eulerOffset_[static_cast<std::size_t>(i)]
                           : eulerOffset_[static_cast<std::size_t>(i)];
    return;
  }
  Filter::SetEuler(angles);
}

void OffsetFilter::SetPositionEuler(float p[3], float angles[3]) {
  if (!enabled_) return;
  SetPosition(p);
  SetEuler(angles);
}

std::unique_ptr<Filter> OffsetFilter::Clone() const {
  return std::make_unique<OffsetFilter>(*this);
}

// ---- Attributes by number ------------------------------------------------------------------

bool OffsetFilter::SetAttributeInt(int id, int value) {
  switch (static_cast<Attribute>(id)) {
    case Attribute::PreTransform:
      preTransform_ = value != 0;
      return true;
    case Attribute::Subtract:
      subtract_ = value != 0;
      return true;
    default:
      return false;
  }
}

bool OffsetFilter::SetAttributeFloatArray(int id, int count, const float* values) {
  if (values == nullptr || !IsFloats(id, count)) return false;
  const bool numbers =
      std::all_of(values, values + count, [](float v) { return std::isfinite(v); });
  if (!numbers) return false;
  if (static_cast<Attribute>(id) == Attribute::PositionOffset) {
    SetPositionOffset(values);
  } else if (static_cast<Attribute>(id) == Attribute::EulerOffset) {
    std::array<float, 3> angles = Scaled(values, kRadiansPerDegree);
    NormalizeEuler(angles.data());
    SetEulerOffset(angles.data());
  } else {
    SetQtnOffset(values);
  }
  return true;
}

bool OffsetFilter::GetAttributeInt(int id, int* value) {
  if (value == nullptr) return false;
  switch (static_cast<Attribute>(id)) {
    case Attribute::PreTransform:
      *value = preTransform_ ? 1 : 0;
      return true;
    case Attribute::Subtract:
      *value = subtract_ ? 1 : 0;
      return true;
    default:
      return false;
  }
}

bool OffsetFilter::GetAttributeFloatArray(int id, int count, float* values) {
  if (values == nullptr || !IsFloats(id, count)) return false;
  if (static_cast<Attribute>(id) == Attribute::PositionOffset) {
    std::ranges::copy(positionOffset_, values);
  } else if (static_cast<Attribute>(id) == Attribute::EulerOffset) {
    std::ranges::copy(Scaled(eulerOffset_.data(), kDegreesPerRadian), values);
  } else {
    std::ranges::copy(qtnOffset_, values);
  }
  return true;
}

bool OffsetFilter::GetAttributeString(int id, int size, char* text) {
  if (text == nullptr || size <= 0) return false;
  if (static_cast<Attribute>(id) != Attribute::Description) return false;
  const std::size_t withEnd = std::strlen(GetName()) + 1;
  std::memcpy(text, GetName(), std::min(withEnd, static_cast<std::size_t>(size)));
  return true;
}

bool OffsetFilter::GetNumAvailableAttributes(int* count) {
  if (count == nullptr) return false;
  *count = static_cast<int>(std::size(kAttributes));
  return true;
}

bool OffsetFilter::GetAvailableAttributes(int count, AttributeInfo* rows) {
  return CopyAttributeRows(kAttributes, count, rows);
}

// ---- The filter's own work -----------------------------------------------------------------

void OffsetFilter::FilterQuaternion(float q[4]) {
  if (!rotationChecked_) CheckRotation();
  if (!rotates_) return;
  const Quaternion& turn = subtract_ ? qtnOffsetInverse_ : qtnOffset_;
  const Quaternion turned =
      preTransform_ ? UnitProduct(turn.data(), q) : UnitProduct(q, turn.data());
  std::ranges::copy(turned, q);
}

void OffsetFilter::FilterPosition(float p[3]) {
  const float sign = subtract_ ? -1.0F : 1.0F;
  for (std::size_t i = 0; i < 3; ++i) p[i] += sign * positionOffset_[i];
}

void OffsetFilter::FilterPose(float p[3], float q[4]) {
  FilterPosition(p);
  FilterQuaternion(q);
}

// ---- Settings for drivers ------------------------------------------------------------------

void OffsetFilter::SetPositionOffset(const float p[3]) {
  std::copy_n(p, 3, positionOffset_.begin());
}

void OffsetFilter::SetEulerOffset(const float angles[3]) {
  std::copy_n(angles, 3, eulerOffset_.begin());
  SetQtn(EulerToQuaternion(angles));
}

void OffsetFilter::SetQtnOffset(const float q[4]) {
  Quaternion copy = {q[0], q[1], q[2], q[3]};
  SetQtn(copy);
  eulerOffset_ = QuaternionToEuler(copy.data());
}

void OffsetFilter::SetQtn(const Quaternion& q) {
  qtnOffset_ = q;
  qtnOffsetInverse_ = {q[0], -q[1], -q[2], -q[3]};
  rotationChecked_ = false;
}

void OffsetFilter::CheckRotation() {
  NormalizeQuaternion(qtnOffset_.data());
  rotates_ = std::any_of(qtnOffset_.begin() + 1, qtnOffset_.end(), IsNotZero);
  rotationChecked_ = true;
}

}  // namespace kinetrel

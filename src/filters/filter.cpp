#include "filters/filter.h"

#include <algorithm>

#include "devices/bounded_text.h"

namespace kinetrel {

Filter::Filter(const Filter& other)
    : position_(other.position_),
      orientation_(other.orientation_),
      type_(other.type_),
      name_(other.name_),
      statusLog_(other.statusLog_) {}

// ---- Passing a pose ------------------------------------------------------------------------

float* Filter::SetQuaternion(float q[4]) {
  if (enabled_) FilterQuaternion(q);
  StoreOrientation(q);
  return orientation_.data();
}

void Filter::SetEuler(float angles[3]) {
  orientation_ = EulerToQuaternion(angles);
  if (!enabled_) return;
  FilterQuaternion(orientation_.data());
  std::ranges::copy(QuaternionToEuler(orientation_.data()), angles);
}

float* Filter::SetPosition(float p[3]) {
  if (enabled_) FilterPosition(p);
  StorePosition(p);
  return position_.data();
}

void Filter::SetPositionEuler(float p[3], float angles[3]) {
  orientation_ = EulerToQuaternion(angles);
  if (enabled_) {
    FilterPose(p, orientation_.data());
    std::ranges::copy(QuaternionToEuler(orientation_.data()), angles);
  }
  StorePosition(p);
}

float* Filter::SetPose(float p[3], float q[4]) {
  if (enabled_) FilterPose(p, q);
  StorePosition(p);
  StoreOrientation(q);
  return orientation_.data();
}

void Filter::StorePosition(const float p[3]) { std::copy_n(p, 3, position_.begin()); }
void Filter::StoreOrientation(const float q[4]) { std::copy_n(q, 4, orientation_.begin()); }

// ---- Attributes by number ------------------------------------------------------------------

bool Filter::SetAttributeInt(int, int) { return false; }
bool Filter::SetAttributeDouble(int, double) { return false; }
bool Filter::SetAttributeFloatArray(int, int, const float*) { return false; }
bool Filter::SetAttributeString(int, int, const char*) { return false; }
bool Filter::GetAttributeInt(int, int*) { return false; }
bool Filter::GetAttributeDouble(int, double*) { return false; }
bool Filter::GetAttributeFloatArray(int, int, float*) { return false; }
bool Filter::GetAttributeString(int, int, char*) { return false; }
bool Filter::GetNumAvailableAttributes(int*) { return false; }
bool Filter::GetAvailableAttributes(int, AttributeInfo*) { return false; }

// ---- The filter's own work -----------------------------------------------------------------

void Filter::FilterQuaternion(float q[4]) {
  std::array<float, 3> nowhere{};
  if (enabled_) FilterPose(nowhere.data(), q);
}

void Filter::FilterPosition(float p[3]) {
  Quaternion unturned = kIdentityQuaternion;
  if (enabled_) FilterPose(p, unturned.data());
}

// ---- The sampling path ---------------------------------------------------------------------

bool Filter::FilterSample(PoseSample& sample) {
  std::array<float, 3> p{};
  Quaternion q{};
  for (std::size_t i = 0; i < 3; ++i) {
    p[i] = static_cast<float>(sample.position[i] / sample.metresPerUnit);
  }
  std::ranges::transform(sample.orientation, q.begin(),
                         [](double v) { return static_cast<float>(v); });
  SetPose(p.data(), q.data());
  for (std::size_t i = 0; i < 3; ++i) sample.position[i] = double{p[i]} * sample.metresPerUnit;
  std::ranges::copy(q, sample.orientation.begin());
  return true;
}

// ---- Not virtual ---------------------------------------------------------------------------

void Filter::SetName(const char* text) {
  if (text != nullptr) CopyTruncated(name_.data(), static_cast<int>(name_.size()), text);
}

void LogDescription(StatusLog& log, const Filter& filter) {
  const std::string text = filter.Describe();
  if (text.empty()) return;
  log.SetStatusF(StatusCode::Setup, "Filter %s: %s", filter.GetName(), text.c_str());
}

}  // namespace kinetrel

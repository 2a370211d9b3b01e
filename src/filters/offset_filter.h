// Shifts a pose by a fixed position offset and turns it by a fixed orientation offset. It adds or
// subtracts the offsets, and turns before or after the rotation of the pose.
#pragma once

#include "filters/filter.h"

namespace kinetrel {

class OffsetFilter final : public Filter {
 public:
  // The numbers of its attributes.
  enum class Attribute : int {
    Description = 0,     // text: the filter's name
    PositionOffset = 1,  // 3 floats
    EulerOffset = 2,     // 3 floats, degrees
    QtnOffset = 3,       // 4 floats, scalar first
    PreTransform = 4,    // 0 or 1
    Subtract = 5,        // 0 or 1
  };

  OffsetFilter();  // offsets of zero, subtracted after the rotation of the pose

  // If only one angle of the offset is not zero, it is added to that angle, which may then leave
  // its range. Otherwise the angles are turned as a quaternion.
  void SetEuler(float angles[3]) override;
  void SetPositionEuler(float p[3], float angles[3]) override;  // does not store if disabled

  std::unique_ptr<Filter> Clone() const override;

  bool SetAttributeInt(int id, int value) override;

  // Also refuses values that are not finite.
  bool SetAttributeFloatArray(int id, int count, const float* values) override;
  bool GetAttributeInt(int id, int* value) override;
  bool GetAttributeFloatArray(int id, int count, float* values) override;
  bool GetAttributeString(int id, int size, char* text) override;
  bool GetNumAvailableAttributes(int* count) override;
  bool GetAvailableAttributes(int count, AttributeInfo* rows) override;

  // These three filter even if the filter is disabled.
  void FilterQuaternion(float q[4]) override;
  void FilterPosition(float p[3]) override;
  void FilterPose(float p[3], float q[4]) override;

  // ---- Settings for drivers ----------------------------------------------------------------
  // Euler angles (radians) and quaternion are two forms of one offset: setting one sets the other.

  void SetPositionOffset(const float p[3]);
  void SetEulerOffset(const float angles[3]);
  void SetQtnOffset(const float q[4]);  // of any length; the first pose normalises it
  void SetPreTransform(bool on) { preTransform_ = on; }
  void SetSubtract(bool on) { subtract_ = on; }

 private:
  void SetQtn(const Quaternion& q);
  void CheckRotation();

  std::array<float, 3> positionOffset_{};
  std::array<float, 3> eulerOffset_{};
  Quaternion qtnOffset_ = kIdentityQuaternion;
  Quaternion qtnOffsetInverse_ = kIdentityQuaternion;  // its conjugate
  bool preTransform_ = false;
  bool subtract_ = true;
  // Computed by the first pose and kept for the next ones.
  bool rotationChecked_ = false;
  bool rotates_ = false;
};

}  // namespace kinetrel

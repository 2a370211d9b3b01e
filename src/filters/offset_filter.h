// Shifts a pose by a fixed position offset and turns it by a fixed orientation offset; adds them or
// takes them away, and turns before or after the pose's own rotation.
#pragma once

#include "filters/filter.h"

namespace kinetrel {

class OffsetFilter final : public Filter {
 public:
  // Its attributes, by number.
  enum class Attribute : int {
    Description = 0,     // text: the filter's name
    PositionOffset = 1,  // 3 floats
    EulerOffset = 2,     // 3 floats, degrees
    QtnOffset = 3,       // 4 floats, scalar first
    PreTransform = 4,    // 0 or 1
    Subtract = 5,        // 0 or 1
  };

  OffsetFilter();  // offsets of zero, taken away after the pose's rotation

  // The angles are turned through quaternions where more than one of the offset's is not zero;
  // one alone is added to its own angle, which is not brought back into its range.
  void SetEuler(float angles[3]) override;
  void SetPositionEuler(float p[3], float angles[3]) override;  // disabled: stores nothing either

  std::unique_ptr<Filter> Clone() const override;

  bool SetAttributeInt(int id, int value) override;

  // Refuses what is no number, too.
  bool SetAttributeFloatArray(int id, int count, const float* values) override;
  bool GetAttributeInt(int id, int* value) override;
  bool GetAttributeFloatArray(int id, int count, float* values) override;
  bool GetAttributeString(int id, int size, char* text) override;
  bool GetNumAvailableAttributes(int* count) override;
  bool GetAvailableAttributes(int count, AttributeInfo* rows) override;

  // These three ask not whether the filter is enabled.
  void FilterQuaternion(float q[4]) override;
  void FilterPosition(float p[3]) override;
  void FilterPose(float p[3], float q[4]) override;

  // ---- Settings for drivers ----------------------------------------------------------------
  // Euler angles (radians) and quaternion are two forms of one offset: to set one sets the other.

  void SetPositionOffset(const float p[3]);
  void SetEulerOffset(const float angles[3]);
  void SetQtnOffset(const float q[4]);  // of any length; brought to 1 by the first pose
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
  // Known once a pose has come, so that not every pose pays for it.
  bool rotationChecked_ = false;
  bool rotates_ = false;
};

}  // namespace kinetrel

// A step that changes a pose in place, such as adding a fixed offset, and remembers the last pose
// that went through it.
//
// A position is 3 floats in the pose's length unit, an orientation a quaternion of 4 floats (scalar
// first) or 3 Euler angles (yaw, pitch, roll in radians). The arrays are the caller's and never
// null; the attribute operations alone take null, and refuse it.
//
// Threads  one at a time; whoever owns the filter sees to it.
// Memory   nothing but copying, cloning and reporting a refusal allocates.
#pragma once

#include <array>
#include <memory>

#include "devices/pose.h"
#include "devices/status_log.h"
#include "filters/attribute_info.h"

namespace kinetrel {

enum class FilterType : int { Offset = 3, Chain = 9 };

class Filter {
 public:
  explicit Filter(FilterType type) : type_(type) {}
  virtual ~Filter() = default;

  // A copy is enabled, whatever its source is; an assignment takes that over too.
  Filter(const Filter& other);
  Filter& operator=(const Filter& other) = default;

  // ---- Passing a pose ----------------------------------------------------------------------
  // A disabled filter stores the pose and leaves the caller's as it is.

  virtual float* SetQuaternion(float q[4]);  // returns the stored orientation
  virtual void SetEuler(float angles[3]);
  virtual float* SetPosition(float p[3]);  // returns the stored position
  virtual void SetPositionEuler(float p[3], float angles[3]);
  virtual float* SetPose(float p[3], float q[4]);  // returns the stored orientation

  virtual std::unique_ptr<Filter> Clone() const = 0;  // a copy of the filter's own class

  // ---- Attributes by number ----------------------------------------------------------------
  // Each is false, and changes and writes nothing, for a number that the filter does not have in
  // that form, for another count of values and for null.

  virtual bool SetAttributeInt(int id, int value);
  virtual bool SetAttributeDouble(int id, double value);
  virtual bool SetAttributeFloatArray(int id, int count, const float* values);
  virtual bool SetAttributeString(int id, int length, const char* text);
  virtual bool GetAttributeInt(int id, int* value);
  virtual bool GetAttributeDouble(int id, double* value);
  virtual bool GetAttributeFloatArray(int id, int count, float* values);

  // At most `size` characters; terminated where that leaves room.
  virtual bool GetAttributeString(int id, int size, char* text);
  virtual bool GetNumAvailableAttributes(int* count);

  // Copies the first rows of the table, `count` at the most.
  virtual bool GetAvailableAttributes(int count, AttributeInfo* rows);

  // ---- The filter's own work ---------------------------------------------------------------
  // In place, nothing is stored. The first two make do with FilterPose, when enabled.

  virtual void FilterQuaternion(float q[4]);
  virtual void FilterPosition(float p[3]);
  virtual void FilterPose(float p[3], float q[4]) = 0;

  // ---- Not virtual -------------------------------------------------------------------------

  void SetName(const char* text);  // the first 63 characters; null changes nothing
  const char* GetName() const { return name_.data(); }
  FilterType GetType() const { return type_; }
  bool IsEnabled() const { return enabled_; }
  void Enable(bool on) { enabled_ = on; }
  void SetStatusLog(StatusLog* log) { statusLog_ = log; }  // not owned; null: say nothing

  const std::array<float, 3>& position() const { return position_; }
  const Quaternion& orientation() const { return orientation_; }

 protected:
  void StorePosition(const float p[3]);
  void StoreOrientation(const float q[4]);

  // Of the last pose passed, after filtering.
  std::array<float, 3> position_{};
  Quaternion orientation_{};
  FilterType type_;
  std::array<char, 64> name_{};
  bool enabled_ = true;
  StatusLog* statusLog_ = nullptr;
};

}  // namespace kinetrel

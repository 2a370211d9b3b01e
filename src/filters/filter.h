// A filter changes a pose in place, for example by a fixed offset, and keeps the last pose that
// went through it.
//
// A position is 3 floats in the length unit of the pose. An orientation is a quaternion of 4 floats
// (scalar first) or 3 Euler angles (yaw, pitch, roll in radians). The caller owns the arrays; only
// the attribute operations accept null, and refuse it.
//
// Threads  one at a time; the owner of the filter ensures that.
// Memory   only a copy, a clone and a reported refusal allocate.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <type_traits>

#include "devices/pose.h"
#include "devices/status_log.h"

namespace kinetrel {

enum class AttributeType : int {
  Number = 0,  // a whole number
  Text = 2,
  Floats = 3,  // an array of floats
};

// One attribute that a filter, a mapping or the engine offers: a row of a table whose index is the
// number of the attribute. Host programs receive these 44 bytes as they are.
struct AttributeInfo {
  static constexpr int kTextCount = -1;

  int id = 0;
  AttributeType valueType = AttributeType::Number;
  int count = 0;  // of values: 1 for a number, the length of an array, kTextCount for a text
  char name[32] = {};
};
static_assert(sizeof(AttributeInfo) == 44 && std::is_trivially_copyable_v<AttributeInfo>);

// Copies the first rows of the table, at most `count`. False if `rows` is null.
inline bool CopyAttributeRows(std::span<const AttributeInfo> table, int count,
                              AttributeInfo* rows) {
  if (rows == nullptr) return false;
  std::copy_n(table.begin(), std::clamp(count, 0, static_cast<int>(table.size())), rows);
  return true;
}

enum class FilterType : int {
  Offset = 3,
  Chain = 9,
  RigidTransform = 32,
  OneEuro = 33,
  OutlierGate = 34,
  Dropout = 35,
  Prediction = 36,
  Distortion = 37,
};

// One pose on its way through a chain, in units that do not depend on the device's settings.
struct PoseSample {
  std::array<double, 3> position{};                          // m
  std::array<double, 4> orientation = {1.0, 0.0, 0.0, 0.0};  // unit quaternion, scalar first
  bool hasPosition = false;                                  // else the values above mean nothing
  bool hasOrientation = false;
  std::int64_t timeNs = 0;     // when the device took the sample, by the monotonic clock
  int sensor = 0;              // from 0
  double metresPerUnit = 1.0;  // of the device's length unit
};

class Filter {
 public:
  explicit Filter(FilterType type) : type_(type) {}
  virtual ~Filter() = default;

  // A copy is always enabled. An assignment copies the enabled state too.
  Filter(const Filter& other);
  Filter& operator=(const Filter& other) = default;

  // ---- Passing a pose ----------------------------------------------------------------------
  // A disabled filter stores the pose and leaves the caller's array unchanged.

  virtual float* SetQuaternion(float q[4]);  // returns the stored orientation
  virtual void SetEuler(float angles[3]);
  virtual float* SetPosition(float p[3]);  // returns the stored position
  virtual void SetPositionEuler(float p[3], float angles[3]);
  virtual float* SetPose(float p[3], float q[4]);  // returns the stored orientation

  virtual std::unique_ptr<Filter> Clone() const = 0;  // a copy of the filter's own class

  // ---- Attributes by number ----------------------------------------------------------------
  // False for null, for an unknown attribute, for an attribute of another type and for a wrong
  // count of values. Nothing is changed or written then.

  virtual bool SetAttributeInt(int id, int value);
  virtual bool SetAttributeDouble(int id, double value);
  virtual bool SetAttributeFloatArray(int id, int count, const float* values);
  virtual bool SetAttributeString(int id, int length, const char* text);
  virtual bool GetAttributeInt(int id, int* value);
  virtual bool GetAttributeDouble(int id, double* value);
  virtual bool GetAttributeFloatArray(int id, int count, float* values);

  // Copies at most `size` characters. The copy is terminated only if the text is shorter.
  virtual bool GetAttributeString(int id, int size, char* text);
  virtual bool GetNumAvailableAttributes(int* count);

  // Copies the first rows of the table, at most `count`.
  virtual bool GetAvailableAttributes(int count, AttributeInfo* rows);

  // ---- The filter's own work ---------------------------------------------------------------
  // In place; nothing is stored. The defaults of the first two call FilterPose if enabled.

  virtual void FilterQuaternion(float q[4]);
  virtual void FilterPosition(float p[3]);
  virtual void FilterPose(float p[3], float q[4]) = 0;

  // ---- The sampling path -------------------------------------------------------------------

  // Filters a sample in place; the caller asks IsEnabled first. Allocates nothing.
  //
  // Returns  false: the filter could not work on this sample and left it unchanged.
  // The default sends the pose through SetPose in the device's unit.
  virtual bool FilterSample(PoseSample& sample);

  // Forgets what was learnt from the samples before: another run or another sensor begins.
  virtual void Restart() {}

  // Whether it decides what is published of a sensor that sends no record at all.
  virtual bool BridgesGaps() const { return false; }

  // Seconds by which moving positions were measured to leave the filter late; 0: none.
  virtual double Lag() const { return 0.0; }

  // What an operator should know of the filter when it is added; empty: nothing.
  virtual std::string Describe() const { return {}; }

  // ---- Not virtual -------------------------------------------------------------------------

  void SetName(const char* text);  // the first 63 characters; null changes nothing
  const char* GetName() const { return name_.data(); }
  FilterType GetType() const { return type_; }
  bool IsEnabled() const { return enabled_; }
  void Enable(bool on) { enabled_ = on; }
  void SetStatusLog(StatusLog* log) { statusLog_ = log; }  // not owned; null: no log

  const std::array<float, 3>& position() const { return position_; }
  const Quaternion& orientation() const { return orientation_; }

 protected:
  void StorePosition(const float p[3]);
  void StoreOrientation(const float q[4]);

  // The last pose, after filtering.
  std::array<float, 3> position_{};
  Quaternion orientation_{};
  FilterType type_;
  std::array<char, 64> name_{};
  bool enabled_ = true;
  StatusLog* statusLog_ = nullptr;
};

// Logs what an operator should know of a filter that is added.
void LogDescription(StatusLog& log, const Filter& filter);

}  // namespace kinetrel

// The base of the filters that are added by name: a table of parameters, which are attributes by
// number and keys of the option by name, and one treatment of bad samples.
//
// Each filter serves one sensor. Bad samples are treated alike by all:
//
//   a position that is not finite       is not valid from here on
//   a quaternion not finite, or zeros   is not valid from here on; another length becomes 1
//   time that goes backwards            the filter begins anew with this sample
//   a gap of more than a second         the same
//   the time of the sample before       a step of zero seconds; see Work
//   a result that is not finite         the sample passes unchanged and the filter begins anew
//
// A filter that cannot work on a sample says why in the status log, once until its parameters
// change, and lets the sample pass unchanged.
#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>

#include "filters/filter.h"
#include "filters/rigid_math.h"

namespace kinetrel {

// A row of a filter's table. The unit is part of the name.
struct FilterParameter {
  enum class Access { Settable, ReadOnly };

  const char* name;  // at most 31 characters
  int count;         // of values, at most 3
  double low;        // the range of each value
  double high;
  Vector3 standard;               // the values of a new filter
  const char* choices = nullptr;  // "a|b|c": the value is the number of one of these words
  Access access = Access::Settable;
};

class TunedFilter : public Filter {
 public:
  bool FilterSample(PoseSample& sample) final;
  void Restart() final;

  // The pose as one that no other belongs to: the filter begins anew. Lengths count as metres.
  void FilterPose(float p[3], float q[4]) override;

  // Attribute 0 is the filter's name; attribute n is row n - 1 of the table. A row with choices is
  // a number, every other row an array of floats; a row of one value is a double too.
  bool SetAttributeInt(int id, int value) override;
  bool SetAttributeDouble(int id, double value) override;
  bool SetAttributeFloatArray(int id, int count, const float* values) override;
  bool GetAttributeInt(int id, int* value) override;
  bool GetAttributeDouble(int id, double* value) override;
  bool GetAttributeFloatArray(int id, int count, float* values) override;
  bool GetAttributeString(int id, int size, char* text) override;
  bool GetNumAvailableAttributes(int* count) override;
  bool GetAvailableAttributes(int count, AttributeInfo* rows) override;

  // Sets a row by its name. Values are separated by '/': "0.1/0/2.5".
  // error  receives a sentence for the user if the result is false; nothing is changed then.
  virtual bool SetByName(std::string_view name, std::string_view value, std::string& error);

  // Ends the making of a filter by name, after its rows were set: reads the files that it needs.
  // error  as above.
  virtual bool Complete(std::string& error);

 protected:
  static constexpr std::size_t kMostRows = 12;

  TunedFilter(FilterType type, const char* name, std::span<const FilterParameter> table);
  TunedFilter(const TunedFilter&) = default;

  // The time since the sample before. `first`: this sample starts anew; none before it counts.
  struct Step {
    double seconds = 0.0;
    bool first = true;
  };

  // Filters a clean sample in place. Allocates nothing.
  //
  // step     zero seconds, and not the first, for two samples of one moment.
  // Returns  null, or why the filter cannot work on this sample. The sample is then restored.
  virtual const char* Work(PoseSample& sample, const Step& step) = 0;

  virtual std::string NamesOfParameters() const;  // for a mistake; a space before each

  virtual void ParametersChanged() {}  // after one or more were set; not by the constructor

  double Value(std::size_t row) const { return values_[row][0]; }
  int Choice(std::size_t row) const { return static_cast<int>(values_[row][0]); }
  const Vector3& Values(std::size_t row) const { return values_[row]; }
  void SetMeasured(std::size_t row, double value) { values_[row][0] = value; }

  std::span<const FilterParameter> table() const { return table_; }

 private:
  const FilterParameter* RowOf(int id) const;
  bool Set(int id, int count, const double* values);
  Step StepTo(std::int64_t timeNs);
  void Complain(const PoseSample& sample, const char* reason);

  std::span<const FilterParameter> table_;
  std::array<Vector3, kMostRows> values_{};
  std::int64_t lastNs_ = 0;
  bool begun_ = false;  // lastNs_ counts
  bool complained_ = false;
};

}  // namespace kinetrel

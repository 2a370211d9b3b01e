// Straightens poses that metal bends, by a map that is fitted to measured and true poses.
//
// Given when the filter is made: file (a table, see pose_pairs.h), model (multiquadric or
// polynomial), degree (of a polynomial). Attributes, read only: outside (how many poses lay outside
// the calibrated box), error-m and error-deg (of points foretold from the others, rms).
//
// A pose outside the box gets the correction of the nearest place on its border. The status log
// says so when a sensor leaves the box, unless it was inside for less than a second.
#pragma once

#include <memory>

#include "filters/distortion_map.h"
#include "filters/tuned_filter.h"

namespace kinetrel {

class DistortionFilter final : public TunedFilter {
 public:
  DistortionFilter();
  std::unique_ptr<Filter> Clone() const override;
  std::string Describe() const override;

  bool SetByName(std::string_view name, std::string_view value, std::string& error) override;
  bool Complete(std::string& error) override;  // reads the file and fits the map

 private:
  const char* Work(PoseSample& sample, const Step& step) override;
  void CountOutside(const PoseSample& sample, bool inside, const Step& step);
  std::string NamesOfParameters() const override;

  std::string file_;
  MapModel model_ = MapModel::Multiquadric;
  int degree_ = 3;
  std::shared_ptr<const DistortionMap> map_;  // null: not complete
  double insideSeconds_ = 1.0;                // since the last pose outside
};

}  // namespace kinetrel

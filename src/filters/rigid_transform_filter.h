// Carries poses from the tracker's frame to the room's, and from the sensor to the tip of the tool
// that it is fixed to:
//
//   position     translation + rotation (scale x position + orientation (tip))
//   orientation  rotation x orientation x tool rotation
//
// Parameters: translation-m, rotation-deg (azimuth, elevation, roll of the tracker's frame in the
// room), scale (of the tracker's lengths), tip-m (in the sensor's frame), tool-rotation-deg.
#pragma once

#include "filters/tuned_filter.h"

namespace kinetrel {

class RigidTransformFilter final : public TunedFilter {
 public:
  RigidTransformFilter();
  std::unique_ptr<Filter> Clone() const override;

 private:
  const char* Work(PoseSample& sample, const Step& step) override;
  void ParametersChanged() override;

  Rotation turn_ = kNoRotation;
  Rotation toolTurn_ = kNoRotation;
  bool hasTip_ = false;
};

}  // namespace kinetrel

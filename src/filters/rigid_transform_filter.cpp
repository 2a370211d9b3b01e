#include "filters/rigid_transform_filter.h"

namespace kinetrel {
namespace {

enum Row : std::size_t { RoomTranslation, RoomRotation, Scale, Tip, ToolRotation };

constexpr FilterParameter kTable[] = {
    {"translation-m", 3, -1e4, 1e4, {}},
    {"rotation-deg", 3, -360.0, 360.0, {}},
    {"scale", 1, 1e-3, 1e3, {1.0}},
    {"tip-m", 3, -100.0, 100.0, {}},
    {"tool-rotation-deg", 3, -360.0, 360.0, {}},
};

}  // namespace

RigidTransformFilter::RigidTransformFilter()
    : TunedFilter(FilterType::RigidTransform, "rigid", kTable) {}

std::unique_ptr<Filter> RigidTransformFilter::Clone() const {
  return std::make_unique<RigidTransformFilter>(*this);
}

void RigidTransformFilter::ParametersChanged() {
  turn_ = FromAngles(kRadiansPerDegree * Values(RoomRotation));
  toolTurn_ = FromAngles(kRadiansPerDegree * Values(ToolRotation));
  hasTip_ = Values(Tip) != Vector3{};
}

const char* RigidTransformFilter::Work(PoseSample& sample, const Step&) {
  if (hasTip_ && sample.hasPosition && !sample.hasOrientation) {
    return "without an orientation it cannot place the tip";
  }
  if (sample.hasPosition) {
    Vector3 place = Value(Scale) * sample.position;
    if (hasTip_) place = place + Rotate(sample.orientation, Values(Tip));
    sample.position = Values(RoomTranslation) + Rotate(turn_, place);
  }
  if (sample.hasOrientation) {
    sample.orientation = AtUnitLength(turn_ * sample.orientation * toolTurn_);
  }
  return nullptr;
}

}  // namespace kinetrel

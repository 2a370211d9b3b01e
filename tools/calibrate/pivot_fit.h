// A tool's tip from poses that were taken while the tip stayed at one place.
//
// The sensor moves on a sphere about the tip. Each pose gives position + orientation (tip) = pivot;
// all together give tip and pivot with the least sum of squares.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "filters/rigid_math.h"

namespace kinetrel::calibrate {

struct SensorPose {
  Vector3 position{};  // m
  Rotation orientation = kNoRotation;
};

struct PivotFit {
  Vector3 tip{};                   // m, in the sensor's frame
  Vector3 tipError{};              // m, standard errors
  Vector3 pivot{};                 // m, in the tracker's frame
  std::vector<Vector3> residuals;  // m, of each pose: position + orientation (tip) - pivot
};

// Takes neighbours for independent; poses that follow each other closely have slow errors in
// common, and the true standard errors are larger then.
//
// Returns  empty, or a sentence for the operator: too few poses, or the tool did not turn enough to
//          show where its tip is.
std::string FitPivot(std::span<const SensorPose> poses, PivotFit& fit);

}  // namespace kinetrel::calibrate

// The rotation and translation that bring points onto others with the least sum of squares.
#pragma once

#include <span>
#include <vector>

#include "filters/rigid_math.h"

namespace kinetrel {

struct RigidFit {
  Rotation turn = kNoRotation;
  Vector3 shift{};  // to = shift + turn (from)
  double scale = 1.0;
  std::vector<Vector3> residuals;  // to - (shift + scale x turn (from))
};

enum class FitScale { One, Free };

// Both spans have the same length, at least 3, and the points do not lie on one line.
RigidFit FitRigid(std::span<const Vector3> from, std::span<const Vector3> to,
                  FitScale scale = FitScale::One);

// How points spread along their three main directions: standard deviations, the largest first.
// Points on a line have a second value of about 0, points in a plane a third one.
Vector3 SpreadOf(std::span<const Vector3> points);

double RmsLength(std::span<const Vector3> vectors);  // 0 without vectors

}  // namespace kinetrel

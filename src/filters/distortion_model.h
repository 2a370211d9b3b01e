// The two kinds of smooth functions through the points of a distortion map.
//
// A model gives six values for a place: the shift of a position in metres and the turn of an
// orientation in radians. Places have coordinates from -1 to 1 along the longest side of the
// calibrated box.
#pragma once

#include <eigen3/Eigen/Dense>
#include <memory>
#include <string>

#include "filters/rigid_math.h"

namespace kinetrel {

class DistortionModel {
 public:
  using Values = std::array<double, 6>;

  virtual ~DistortionModel() = default;
  virtual Values At(const Vector3& place) const = 0;  // allocates nothing
};

struct ModelFit {
  std::shared_ptr<const DistortionModel> model;  // null: `error` says why
  Eigen::MatrixXd leftOut;  // for each point, its values less those of a fit to the other points
  std::string error;
};

// places  one row a point, three columns; not all in one plane.
// values  six columns.

// A polynomial of all terms up to the degree, 1 to 4, fitted with the least sum of squares.
ModelFit FitPolynomial(const Eigen::MatrixXd& places, const Eigen::MatrixXd& values, int degree);

// Hardy's multiquadric: a sum of hyperboloids, one over each point, and a linear part. It comes
// as near to the points as lets it foretell a point from the others best.
ModelFit FitMultiquadric(const Eigen::MatrixXd& places, const Eigen::MatrixXd& values);

}  // namespace kinetrel

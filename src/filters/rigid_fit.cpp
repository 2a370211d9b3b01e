#include "filters/rigid_fit.h"

#include <eigen3/Eigen/Dense>

namespace kinetrel {
namespace {

Eigen::Matrix3Xd Columns(std::span<const Vector3> points) {
  Eigen::Matrix3Xd columns(3, static_cast<Eigen::Index>(points.size()));
  Eigen::Index at = 0;
  for (const Vector3& point : points) columns.col(at++) << point[0], point[1], point[2];
  return columns;
}

}  // namespace

RigidFit FitRigid(std::span<const Vector3> from, std::span<const Vector3> to, FitScale scale) {
  const Eigen::Matrix4d best = Eigen::umeyama(Columns(from), Columns(to), scale == FitScale::Free);
  RigidFit fit;
  fit.scale = best.block<3, 1>(0, 0).norm();
  const Eigen::Matrix3d rotation = best.topLeftCorner<3, 3>() / fit.scale;
  const Eigen::Quaterniond turn(rotation);
  fit.turn = AtUnitLength({turn.w(), turn.x(), turn.y(), turn.z()});
  fit.shift = {best(0, 3), best(1, 3), best(2, 3)};
  for (std::size_t i = 0; i < from.size(); ++i) {
    fit.residuals.push_back(to[i] - (fit.shift + fit.scale * Rotate(fit.turn, from[i])));
  }
  return fit;
}

Vector3 SpreadOf(std::span<const Vector3> points) {
  const Eigen::Matrix3Xd columns = Columns(points);
  const Eigen::Matrix3Xd centred = columns.colwise() - columns.rowwise().mean();
  const Eigen::Matrix3d squares =
      centred * centred.transpose() / static_cast<double>(points.size());
  const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver(squares, Eigen::EigenvaluesOnly);
  const Eigen::Vector3d spread = solver.eigenvalues().cwiseMax(0.0).cwiseSqrt();
  return {spread(2), spread(1), spread(0)};
}

double RmsLength(std::span<const Vector3> vectors) {
  double sum = 0.0;
  for (const Vector3& vector : vectors) sum += Dot(vector, vector);
  return vectors.empty() ? 0.0 : std::sqrt(sum / static_cast<double>(vectors.size()));
}

}  // namespace kinetrel

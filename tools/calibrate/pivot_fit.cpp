#include "calibrate/pivot_fit.h"

#include <eigen3/Eigen/Dense>

namespace kinetrel::calibrate {
namespace {

constexpr std::size_t kFewestPoses = 30;
// Of the equations: a tool that turns by 20 degrees about two axes has 12, about one axis
// thousands.
constexpr double kLargestCondition = 25.0;

Eigen::Matrix3d MatrixOf(const Rotation& q) {
  return Eigen::Quaterniond(q[0], q[1], q[2], q[3]).toRotationMatrix();
}

Vector3 VectorOf(const Eigen::Vector3d& v) { return {v(0), v(1), v(2)}; }

}  // namespace

std::string FitPivot(std::span<const SensorPose> poses, PivotFit& fit) {
  if (poses.size() < kFewestPoses) {
    return "only " + std::to_string(poses.size()) + " poses came; it takes at least " +
           std::to_string(kFewestPoses);
  }
  const auto count = static_cast<Eigen::Index>(poses.size());
  Eigen::MatrixXd equations(3 * count, 6);  // of tip and pivot
  Eigen::VectorXd positions(3 * count);
  for (Eigen::Index i = 0; i < count; ++i) {
    const SensorPose& pose = poses[static_cast<std::size_t>(i)];
    equations.block<3, 3>(3 * i, 0) = MatrixOf(pose.orientation);
    equations.block<3, 3>(3 * i, 3) = -Eigen::Matrix3d::Identity();
    positions.segment<3>(3 * i) =
        -Eigen::Vector3d(pose.position[0], pose.position[1], pose.position[2]);
  }
  const Eigen::Matrix<double, 6, 6> normal = equations.transpose() * equations;
  const Eigen::SelfAdjointEigenSolver<Eigen::Matrix<double, 6, 6>> sizes(normal,
                                                                         Eigen::EigenvaluesOnly);
  const double least = std::max(sizes.eigenvalues()(0), 0.0);
  if (!(sizes.eigenvalues()(5) <= kLargestCondition * kLargestCondition * least)) {
    return "the tool turned too little: tilt it to all sides and twist it";
  }
  const Eigen::Matrix<double, 6, 1> solution = equations.householderQr().solve(positions);
  const Eigen::VectorXd off = equations * solution - positions;
  const double variance = off.squaredNorm() / static_cast<double>(3 * count - 6);
  const Eigen::Matrix<double, 6, 6> covariance = variance * normal.inverse();
  fit.tip = VectorOf(solution.head<3>());
  fit.tipError = VectorOf(covariance.diagonal().head<3>().cwiseSqrt());
  fit.pivot = VectorOf(solution.tail<3>());
  fit.residuals.clear();
  for (Eigen::Index i = 0; i < count; ++i) {
    fit.residuals.push_back(VectorOf(off.segment<3>(3 * i)));
  }
  return "";
}

}  // namespace kinetrel::calibrate

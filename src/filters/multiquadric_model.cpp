#include "filters/distortion_model.h"

#include <limits>

namespace kinetrel {
namespace {

constexpr int kFewestPoints = 12;
constexpr int kMostPoints = 1000;  // the fit takes seconds for these
constexpr double kShape = 0.815;   // Hardy's, of the mean distance between neighbours
constexpr Eigen::Index kValues = 6;
constexpr Eigen::Index kLinear = 4;  // terms of the linear part: 1, x, y, z

using Matrix = Eigen::MatrixXd;

// Single precision takes half the time, and is exact to micrometres: neighbours are about as far
// from each other as the hyperboloids are round, so no weight is large.
class Multiquadric final : public DistortionModel {
 public:
  // weights  of each point, six columns; linear: of 1, x, y, z, six columns.
  Multiquadric(const Matrix& places, double shape, const Matrix& weights, const Matrix& linear)
      : squaredShape_(static_cast<float>(shape * shape)), linear_(linear) {
    const Eigen::Index count = places.rows();
    groups_ = Groups::Zero(kTogether, (count + kTogether - 1) / kTogether * kColumns);
    for (Eigen::Index i = 0; i < count; ++i) {
      const Eigen::Index group = i / kTogether * kColumns;
      groups_.row(i % kTogether).segment<3>(group) = places.row(i).array().cast<float>();
      groups_.row(i % kTogether).segment<kValues>(group + 3) = weights.row(i).array().cast<float>();
    }
  }

  // All six sums go on side by side, because each addition waits for the one before.
  Values At(const Vector3& place) const override {
    const auto x = static_cast<float>(place[0]);
    const auto y = static_cast<float>(place[1]);
    const auto z = static_cast<float>(place[2]);
    std::array<Eigen::Array<float, kTogether, 1>, kValues> sums;
    for (auto& sum : sums) sum.setZero();
    for (Eigen::Index group = 0; group < groups_.cols(); group += kColumns) {
      const Eigen::Array<float, kTogether, 1> height =
          ((groups_.col(group) - x).square() + (groups_.col(group + 1) - y).square() +
           (groups_.col(group + 2) - z).square() + squaredShape_)
              .sqrt();
      Eigen::Index column = group + 3;
      for (auto& sum : sums) sum += groups_.col(column++) * height;
    }
    Values values;
    for (Eigen::Index i = 0; i < kValues; ++i) {
      const auto part = static_cast<std::size_t>(i);
      values[part] = double{sums[part].sum()} + linear_(0, i) + linear_(1, i) * place[0] +
                     linear_(2, i) * place[1] + linear_(3, i) * place[2];
    }
    return values;
  }

 private:
  static constexpr Eigen::Index kTogether = 4;           // points; a row each
  static constexpr Eigen::Index kColumns = 3 + kValues;  // of a group: place, weights
  using Groups = Eigen::Array<float, kTogether, Eigen::Dynamic>;

  float squaredShape_;
  Groups groups_;  // the last one is filled up with points without weight
  Eigen::Matrix<double, kLinear, kValues> linear_;
};

double MeanNeighbourDistance(const Matrix& places) {
  double sum = 0.0;
  for (Eigen::Index i = 0; i < places.rows(); ++i) {
    double nearest = std::numeric_limits<double>::max();
    for (Eigen::Index j = 0; j < places.rows(); ++j) {
      if (j != i) nearest = std::min(nearest, (places.row(i) - places.row(j)).norm());
    }
    sum += nearest;
  }
  return sum / static_cast<double>(places.rows());
}

// The smoothing spline of kriging: (K + smoothing) w + P b = y and P'w = 0, with K the negative
// heights, which is positive definite for all w with P'w = 0. One eigenvalue decomposition serves
// every smoothing, and the values left out are w over the diagonal of the inverse.
class Smoother {
 public:
  Smoother(const Matrix& places, double shape) : heights_(places.rows(), places.rows()) {
    const Eigen::Index count = places.rows();
    for (Eigen::Index i = 0; i < count; ++i) {
      heights_.col(i) =
          ((places.rowwise() - places.row(i)).rowwise().squaredNorm().array() + shape * shape)
              .sqrt();
    }
    Matrix plane(count, kLinear);
    plane << Eigen::VectorXd::Ones(count), places;
    plane_.compute(plane);
    const Matrix across =
        (plane_.householderQ() * Matrix::Identity(count, count)).rightCols(count - kLinear);
    const Eigen::SelfAdjointEigenSolver<Matrix> solver(-across.transpose() * heights_ * across);
    sizes_ = solver.eigenvalues().cwiseMax(0.0);
    modes_ = across * solver.eigenvectors();
  }

  double LargestSize() const { return sizes_.maxCoeff(); }

  struct Solution {
    Matrix weights;
    Matrix leftOut;
  };
  Solution Solve(const Matrix& values, double smoothing) const {
    const Eigen::VectorXd inverse = (sizes_.array() + smoothing).inverse();
    const Eigen::VectorXd diagonal = modes_.cwiseAbs2() * inverse;
    Solution solution;
    solution.weights = modes_ * (inverse.asDiagonal() * (modes_.transpose() * values));
    solution.leftOut = diagonal.cwiseInverse().asDiagonal() * solution.weights;
    return solution;
  }

  // The smoothing that foretells the points best from one another.
  double BestSmoothing(const Matrix& values) const {
    double best = LargestSize();
    double least = std::numeric_limits<double>::max();
    for (double share = 1.0; share > 1e-9; share *= 0.4) {
      const double error = Solve(values, share * LargestSize()).leftOut.squaredNorm();
      if (error >= least) continue;
      least = error;
      best = share * LargestSize();
    }
    return best;
  }

  // The smoothing falls out, because the weights lie across the plane.
  Matrix LinearPart(const Matrix& values, const Matrix& weights) const {
    return plane_.solve(values + heights_ * weights);
  }

 private:
  Matrix heights_;
  Eigen::HouseholderQR<Matrix> plane_;
  Eigen::VectorXd sizes_;
  Matrix modes_;
};

}  // namespace

ModelFit FitMultiquadric(const Matrix& places, const Matrix& values) {
  ModelFit fit;
  const auto count = static_cast<int>(places.rows());
  if (count < kFewestPoints || count > kMostPoints) {
    fit.error = "a multiquadric needs " + std::to_string(kFewestPoints) + " to " +
                std::to_string(kMostPoints) + " points; there are " + std::to_string(count);
    return fit;
  }
  const double shape = kShape * MeanNeighbourDistance(places);
  if (!(shape > 1e-6)) {
    fit.error = "most points are twice in the table; measure at different places";
    return fit;
  }
  const Smoother smoother(places, shape);
  Matrix weights(count, kValues), linear(kLinear, kValues);
  fit.leftOut.resize(count, kValues);
  // Positions and orientations have different noise.
  for (const Eigen::Index first : {0, 3}) {
    const Matrix part = values.middleCols(first, 3);
    const double smoothing = smoother.BestSmoothing(part);
    const Smoother::Solution solution = smoother.Solve(part, smoothing);
    linear.middleCols(first, 3) = smoother.LinearPart(part, solution.weights);
    weights.middleCols(first, 3) = -solution.weights;
    fit.leftOut.middleCols(first, 3) = solution.leftOut;
  }
  fit.model = std::make_shared<Multiquadric>(places, shape, weights, linear);
  return fit;
}

}  // namespace kinetrel

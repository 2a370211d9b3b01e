#include "filters/distortion_model.h"

namespace kinetrel {
namespace {

constexpr int kHighestDegree = 4;
constexpr int kMostTerms = 35;
// Of the terms at the points: above it, their places do not determine a polynomial between them.
constexpr double kLargestCondition = 40.0;

int TermCount(int degree) { return (degree + 1) * (degree + 2) * (degree + 3) / 6; }

// Products of Chebyshev's polynomials, which are less alike than powers are.
void TermsAt(const Vector3& place, int degree, double* terms) {
  std::array<std::array<double, kHighestDegree + 1>, 3> along;
  for (std::size_t axis = 0; axis < 3; ++axis) {
    along[axis][0] = 1.0;
    along[axis][1] = place[axis];
    for (std::size_t i = 2; i <= kHighestDegree; ++i) {
      along[axis][i] = 2.0 * place[axis] * along[axis][i - 1] - along[axis][i - 2];
    }
  }
  const auto n = static_cast<std::size_t>(degree);
  for (std::size_t i = 0; i <= n; ++i) {
    for (std::size_t j = 0; i + j <= n; ++j) {
      const double both = along[0][i] * along[1][j];
      for (std::size_t k = 0; i + j + k <= n; ++k) *terms++ = both * along[2][k];
    }
  }
}

class Polynomial final : public DistortionModel {
 public:
  Polynomial(int degree, const Vector3& half, const Eigen::MatrixXd& factors)
      : degree_(degree), half_(half) {
    for (Eigen::Index term = 0; term < factors.rows(); ++term) {
      for (Eigen::Index value = 0; value < factors.cols(); ++value) {
        factors_[static_cast<std::size_t>(term)][static_cast<std::size_t>(value)] =
            factors(term, value);
      }
    }
  }

  Values At(const Vector3& place) const override {
    std::array<double, kMostTerms> terms;
    TermsAt({place[0] / half_[0], place[1] / half_[1], place[2] / half_[2]}, degree_, terms.data());
    Values sum{};
    const auto count = static_cast<std::size_t>(TermCount(degree_));
    for (std::size_t term = 0; term < count; ++term) {
      for (std::size_t value = 0; value < sum.size(); ++value) {
        sum[value] += terms[term] * factors_[term][value];
      }
    }
    return sum;
  }

 private:
  int degree_;
  Vector3 half_;  // sizes of the points' box; its terms go from -1 to 1 along each axis
  std::array<Values, kMostTerms> factors_{};
};

}  // namespace

ModelFit FitPolynomial(const Eigen::MatrixXd& places, const Eigen::MatrixXd& values, int degree) {
  ModelFit fit;
  const int terms = TermCount(degree);
  const auto count = static_cast<int>(places.rows());
  if (count < 2 * terms) {
    fit.error = "a polynomial of degree " + std::to_string(degree) + " needs at least " +
                std::to_string(2 * terms) + " points; there are " + std::to_string(count);
    return fit;
  }
  const Eigen::Vector3d half = places.cwiseAbs().colwise().maxCoeff();
  Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> design(count, terms);
  for (int i = 0; i < count; ++i) {
    TermsAt({places(i, 0) / half(0), places(i, 1) / half(1), places(i, 2) / half(2)}, degree,
            design.row(i).data());
  }
  const Eigen::HouseholderQR<Eigen::MatrixXd> solver(design);
  const Eigen::MatrixXd triangle = solver.matrixQR().topRows(terms).triangularView<Eigen::Upper>();
  const Eigen::VectorXd sizes = Eigen::JacobiSVD<Eigen::MatrixXd>(triangle).singularValues();
  if (!(sizes(0) <= kLargestCondition * sizes(terms - 1))) {
    fit.error = "the points do not determine a polynomial of degree " + std::to_string(degree) +
                ": along each axis it needs more different places than its degree";
    return fit;
  }
  const Eigen::MatrixXd factors = solver.solve(values);
  const Eigen::MatrixXd basis = solver.householderQ() * Eigen::MatrixXd::Identity(count, terms);
  const Eigen::VectorXd leverage = basis.rowwise().squaredNorm();
  fit.leftOut = values - design * factors;
  for (int i = 0; i < count; ++i) fit.leftOut.row(i) /= std::max(1.0 - leverage(i), 1e-9);
  fit.model = std::make_shared<Polynomial>(degree, Vector3{half(0), half(1), half(2)}, factors);
  return fit;
}

}  // namespace kinetrel

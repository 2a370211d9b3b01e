#include "filters/distortion_map.h"

#include <cstdio>

#include "filters/distortion_model.h"
#include "filters/rigid_fit.h"

namespace kinetrel {
namespace {

constexpr std::size_t kFewestPoints = 8;
// Points whose smallest spread is less than this part of the largest one say nothing across it.
constexpr double kFlattest = 0.02;

std::string Text(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::vector<Vector3> Positions(const PosePairTable& table, Vector3 PosePair::*which) {
  std::vector<Vector3> positions;
  positions.reserve(table.pairs.size());
  for (const PosePair& pair : table.pairs) positions.push_back(pair.*which);
  return positions;
}

Eigen::Vector3d FromVector(const Vector3& v) { return {v[0], v[1], v[2]}; }

}  // namespace

std::shared_ptr<const DistortionMap> DistortionMap::Fit(const PosePairTable& table, MapModel model,
                                                        int degree, std::string& error) {
  const std::shared_ptr<DistortionMap> map(new DistortionMap);
  if (!map->PlaceBox(table, error)) return nullptr;
  const auto count = static_cast<Eigen::Index>(table.pairs.size());
  Eigen::MatrixXd places(count, 3);
  Eigen::MatrixXd values = Eigen::MatrixXd::Zero(count, 6);
  for (Eigen::Index i = 0; i < count; ++i) {
    const PosePair& pair = table.pairs[static_cast<std::size_t>(i)];
    places.row(i) = FromVector((1.0 / map->scale_) * (pair.measured - map->centre_));
    values.row(i).head<3>() = FromVector(pair.truth - pair.measured);
    if (!table.hasOrientations) continue;
    const Rotation turn = pair.trueOrientation * Inverse(pair.measuredOrientation);
    values.row(i).tail<3>() = FromVector(ToTurn(AtUnitLength(turn)));
  }
  const ModelFit fit = model == MapModel::Polynomial ? FitPolynomial(places, values, degree)
                                                     : FitMultiquadric(places, values);
  if (fit.model == nullptr) {
    error = fit.error;
    return nullptr;
  }
  map->model_ = fit.model;
  for (Eigen::Index i = 0; i < count; ++i) {
    map->report_.points.push_back({fit.leftOut(i, 0), fit.leftOut(i, 1), fit.leftOut(i, 2)});
  }
  map->report_.leftOutTurn =
      fit.leftOut.rightCols(3).norm() / std::sqrt(static_cast<double>(count));
  return map->Judge(table, error) ? map : nullptr;
}

bool DistortionMap::PlaceBox(const PosePairTable& table, std::string& error) {
  if (table.pairs.size() < kFewestPoints) {
    error = "a map needs at least " + std::to_string(kFewestPoints) + " points; there are " +
            std::to_string(table.pairs.size());
    return false;
  }
  const std::vector<Vector3> measured = Positions(table, &PosePair::measured);
  const Vector3 spread = SpreadOf(measured);
  if (!(spread[2] > kFlattest * spread[0])) {
    error = "the points lie almost in one plane; measure them all over the volume";
    return false;
  }
  Vector3 low = measured[0];
  Vector3 high = measured[0];
  for (const Vector3& position : measured) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
      low[axis] = std::min(low[axis], position[axis]);
      high[axis] = std::max(high[axis], position[axis]);
    }
  }
  centre_ = 0.5 * (low + high);
  half_ = 0.5 * (high - low);
  scale_ = std::ranges::max(half_);
  return true;
}

bool DistortionMap::Judge(const PosePairTable& table, std::string& error) {
  report_.rigid =
      FitRigid(Positions(table, &PosePair::measured), Positions(table, &PosePair::truth)).residuals;
  report_.without = RmsLength(report_.rigid);
  report_.leftOut = RmsLength(report_.points);
  const auto worst = std::ranges::max_element(
      report_.points, [](const Vector3& a, const Vector3& b) { return Dot(a, a) < Dot(b, b); });
  report_.largest = Length(*worst);
  report_.worstLine = table.pairs[static_cast<std::size_t>(worst - report_.points.begin())].line;
  if (report_.leftOut < report_.without) return true;
  error = "the map would not make the poses better: " +
          Text("%.2f mm rms with it, ", report_.leftOut * 1e3) +
          Text("%.2f mm without. ", report_.without * 1e3) +
          "Measure more points, or the largest error again (line " +
          std::to_string(report_.worstLine) + Text(", %.1f mm)", report_.largest * 1e3);
  return false;
}

DistortionMap::Correction DistortionMap::At(const Vector3& position) const {
  Vector3 place{};
  Correction correction;
  for (std::size_t axis = 0; axis < 3; ++axis) {
    const double off = position[axis] - centre_[axis];
    const double within = std::clamp(off, -half_[axis], half_[axis]);
    correction.inside = correction.inside && off == within;
    place[axis] = within / scale_;
  }
  const DistortionModel::Values values = model_->At(place);
  std::copy_n(values.begin(), 3, correction.shift.begin());
  std::copy_n(values.begin() + 3, 3, correction.turn.begin());
  return correction;
}

std::string DistortionMap::Summary() const {
  std::string text =
      std::to_string(report_.points.size()) +
      " points; each one foretold from the others: " + Text("%.2f mm rms, ", report_.leftOut * 1e3);
  if (report_.leftOutTurn > 0.0) {
    text += Text("%.2f degrees, ", report_.leftOutTurn * kDegreesPerRadian);
  }
  return text + Text("at most %.1f mm", report_.largest * 1e3) + " (line " +
         std::to_string(report_.worstLine) +
         Text("); without the map: %.2f mm rms.", report_.without * 1e3);
}

}  // namespace kinetrel

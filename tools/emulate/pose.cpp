#include "emulate/pose.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kinetrel::emulate {
namespace {

constexpr double kRadians = std::numbers::pi / 180;

double Dot(const Vector3& a, const Vector3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

Vector3 Less(const Vector3& a, const Vector3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }

Vector3 Times(const Vector3& a, double k) { return {a[0] * k, a[1] * k, a[2] * k}; }

Vector3 Cross(const Vector3& a, const Vector3& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

std::optional<Vector3> Unit(const Vector3& a) {
  const double length = std::sqrt(Dot(a, a));
  if (!(length > 1e-9) || !std::isfinite(length)) return std::nullopt;
  return Times(a, 1 / length);
}

Vector3 Column(const Matrix3& m, std::size_t i) { return {m[0][i], m[1][i], m[2][i]}; }

Matrix3 FromColumns(const Vector3& x, const Vector3& y, const Vector3& z) {
  return {{{x[0], y[0], z[0]}, {x[1], y[1], z[1]}, {x[2], y[2], z[2]}}};
}

}  // namespace

Matrix3 RotationOf(const MotionPose& pose) {
  const double ca = std::cos(pose.azimuth * kRadians), sa = std::sin(pose.azimuth * kRadians);
  const double ce = std::cos(pose.elevation * kRadians), se = std::sin(pose.elevation * kRadians);
  const double cr = std::cos(pose.roll * kRadians), sr = std::sin(pose.roll * kRadians);
  return {{{ca * ce, ca * se * sr - sa * cr, ca * se * cr + sa * sr},
           {sa * ce, sa * se * sr + ca * cr, sa * se * cr - ca * sr},
           {-se, ce * sr, ce * cr}}};
}

Quaternion4 QuaternionOf(const MotionPose& pose) {
  const double a = pose.azimuth * kRadians / 2;
  const double e = pose.elevation * kRadians / 2;
  const double r = pose.roll * kRadians / 2;
  const double ca = std::cos(a), sa = std::sin(a), ce = std::cos(e), se = std::sin(e);
  const double cr = std::cos(r), sr = std::sin(r);
  return {ca * ce * cr + sa * se * sr, ca * ce * sr - sa * se * cr, ca * se * cr + sa * ce * sr,
          sa * ce * cr - ca * se * sr};
}

void SetAngles(MotionPose& pose, const Quaternion4& orientation) {
  const auto& [w, x, y, z] = orientation;
  pose.azimuth = std::atan2(2 * (w * z + x * y), 1 - 2 * (y * y + z * z)) / kRadians;
  pose.elevation = std::asin(std::clamp(2 * (w * y - z * x), -1.0, 1.0)) / kRadians;
  pose.roll = std::atan2(2 * (w * x + y * z), 1 - 2 * (x * x + y * y)) / kRadians;
}

Vector3 Turn(const Matrix3& matrix, const Vector3& vector) {
  return {Dot(matrix[0], vector), Dot(matrix[1], vector), Dot(matrix[2], vector)};
}

Vector3 TurnBack(const Matrix3& matrix, const Vector3& vector) {
  return {Dot(Column(matrix, 0), vector), Dot(Column(matrix, 1), vector),
          Dot(Column(matrix, 2), vector)};
}

std::optional<Frame> FrameFrom(const Vector3& origin, const Vector3& x, const Vector3& y) {
  const auto xAxis = Unit(Less(x, origin));
  if (!xAxis) return std::nullopt;
  const Vector3 toward = Less(y, origin);
  const auto yAxis = Unit(Less(toward, Times(*xAxis, Dot(toward, *xAxis))));
  if (!yAxis) return std::nullopt;
  return Frame{origin, FromColumns(*xAxis, *yAxis, Cross(*xAxis, *yAxis))};
}

MotionPose SeenFrom(const Frame& frame, const MotionPose& pose) {
  const Vector3 at = TurnBack(frame.axes, Less({pose.x, pose.y, pose.z}, frame.origin));
  const Matrix3 rotation = RotationOf(pose);
  Matrix3 seen;
  for (std::size_t row = 0; row < 3; ++row) {
    for (std::size_t i = 0; i < 3; ++i) {
      seen[row][i] = Dot(Column(frame.axes, row), Column(rotation, i));
    }
  }
  return {at[0],
          at[1],
          at[2],
          std::atan2(seen[1][0], seen[0][0]) / kRadians,
          std::asin(std::clamp(-seen[2][0], -1.0, 1.0)) / kRadians,
          std::atan2(seen[2][1], seen[2][2]) / kRadians};
}

}  // namespace kinetrel::emulate

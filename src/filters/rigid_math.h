// Vectors and rotations in double precision, for filters and for calibration.
//
// A quaternion is w, x, y, z. Rotate(q, v) turns a vector of the sensor's frame into the frame in
// which q gives the sensor's orientation.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>

#include "devices/pose.h"

namespace kinetrel {

using Vector3 = std::array<double, 3>;
using Rotation = std::array<double, 4>;

inline constexpr Rotation kNoRotation = {1.0, 0.0, 0.0, 0.0};

inline Vector3 operator+(const Vector3& a, const Vector3& b) {
  return {a[0] + b[0], a[1] + b[1], a[2] + b[2]};
}
inline Vector3 operator-(const Vector3& a, const Vector3& b) {
  return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
inline Vector3 operator*(double factor, const Vector3& v) {
  return {factor * v[0], factor * v[1], factor * v[2]};
}
inline double Dot(const Vector3& a, const Vector3& b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
inline Vector3 Cross(const Vector3& a, const Vector3& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
inline double Length(const Vector3& v) { return std::sqrt(Dot(v, v)); }

// The Hamilton product: turns by `b`, then by `a`.
inline Rotation operator*(const Rotation& a, const Rotation& b) {
  return {a[0] * b[0] - a[1] * b[1] - a[2] * b[2] - a[3] * b[3],
          a[0] * b[1] + a[1] * b[0] + a[2] * b[3] - a[3] * b[2],
          a[0] * b[2] - a[1] * b[3] + a[2] * b[0] + a[3] * b[1],
          a[0] * b[3] + a[1] * b[2] - a[2] * b[1] + a[3] * b[0]};
}
inline Rotation Inverse(const Rotation& q) { return {q[0], -q[1], -q[2], -q[3]}; }

inline Rotation AtUnitLength(const Rotation& q) {
  const double length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
  return {q[0] / length, q[1] / length, q[2] / length, q[3] / length};
}

inline Vector3 Rotate(const Rotation& q, const Vector3& v) {
  const Vector3 axis = {q[1], q[2], q[3]};
  const Vector3 twice = 2.0 * Cross(axis, v);
  return v + q[0] * twice + Cross(axis, twice);
}

// Below this sine of half the angle the first terms of the series are exact to 1e-9.
inline constexpr double kSmallTurn = 0.05;

// The rotation about `turn`, by its length in radians.
inline Rotation FromTurn(const Vector3& turn) {
  const double square = Dot(turn, turn) / 4.0;  // of half the angle
  double cosine = 0.0;
  double factor = 0.0;
  if (square < kSmallTurn * kSmallTurn) {
    cosine = 1.0 - square * (1.0 / 2 - square / 24);
    factor = 0.5 * (1.0 - square * (1.0 / 6 - square / 120));
  } else {
    const double half = std::sqrt(square);
    cosine = std::cos(half);
    factor = std::sin(half) / (2.0 * half);
  }
  return {cosine, factor * turn[0], factor * turn[1], factor * turn[2]};
}

// The inverse of FromTurn, the shorter way round: at most pi long. `q` has unit length.
inline Vector3 ToTurn(const Rotation& q) {
  const double sign = q[0] < 0.0 ? -1.0 : 1.0;
  const Vector3 axis = {sign * q[1], sign * q[2], sign * q[3]};
  const double square = Dot(axis, axis);
  if (square < kSmallTurn * kSmallTurn) {
    return 2.0 * (1.0 + square * (1.0 / 6 + square * (3.0 / 40))) * axis;
  }
  const double sine = std::sqrt(square);
  return (2.0 * std::atan2(sine, sign * q[0]) / sine) * axis;
}

// From `a` the share `part` (0 to 1) of the shorter way to `b`. Along the chord: equal parts are
// not quite equal angles.
inline Rotation Between(const Rotation& a, const Rotation& b, double part) {
  const double cosine = a[0] * b[0] + a[1] * b[1] + a[2] * b[2] + a[3] * b[3];
  const double toB = cosine < 0.0 ? -part : part;
  Rotation between{};
  for (std::size_t i = 0; i < 4; ++i) between[i] = (1.0 - part) * a[i] + toB * b[i];
  return AtUnitLength(between);
}

// Azimuth about z, then elevation about y, then roll about x; radians.
inline Rotation FromAngles(const Vector3& angles) {
  return FromTurn({0.0, 0.0, angles[0]}) * FromTurn({0.0, angles[1], 0.0}) *
         FromTurn({angles[2], 0.0, 0.0});
}
inline Vector3 ToAngles(const Rotation& q) {
  const auto [w, x, y, z] = q;
  return {std::atan2(2.0 * (x * y + w * z), 1.0 - 2.0 * (y * y + z * z)),
          std::asin(std::clamp(2.0 * (w * y - x * z), -1.0, 1.0)),
          std::atan2(2.0 * (w * x + y * z), 1.0 - 2.0 * (x * x + y * y))};
}

}  // namespace kinetrel

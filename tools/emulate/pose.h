// Poses, and turning them: what devices with a settable reference frame need.
#pragma once

#include <array>
#include <optional>

namespace kinetrel::emulate {

// In centimetres and degrees; the device converts to what it sends. Azimuth turns about z, then
// elevation about y, then roll about x.
struct MotionPose {
  double x = 0;
  double y = 0;
  double z = 0;
  double azimuth = 0;
  double elevation = 0;
  double roll = 0;

  bool operator==(const MotionPose&) const = default;
};

using Vector3 = std::array<double, 3>;
using Matrix3 = std::array<Vector3, 3>;     // rows
using Quaternion4 = std::array<double, 4>;  // w, x, y, z

Matrix3 RotationOf(const MotionPose& pose);  // its angles; columns are the sensor's axes
Quaternion4 QuaternionOf(const MotionPose& pose);
void SetAngles(MotionPose& pose, const Quaternion4& orientation);  // of a unit quaternion

Vector3 Turn(const Matrix3& matrix, const Vector3& vector);
Vector3 TurnBack(const Matrix3& matrix, const Vector3& vector);

// A reference frame other than the device's own.
struct Frame {
  Vector3 origin{};
  Matrix3 axes{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};  // columns

  bool operator==(const Frame&) const = default;
};

// From three points: the origin, one on the x axis, one on the side of the y axis. Empty when they
// are in one line.
std::optional<Frame> FrameFrom(const Vector3& origin, const Vector3& x, const Vector3& y);

// `pose` as seen from `frame`. Angles come out at -180 .. 180, elevation at -90 .. 90.
MotionPose SeenFrom(const Frame& frame, const MotionPose& pose);

}  // namespace kinetrel::emulate

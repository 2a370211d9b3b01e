#include "devices/pose.h"

#include <algorithm>
#include <cmath>

namespace kinetrel {
namespace {

// A little above pi and pi/2. The floats nearest to pi and pi/2, which a device reports when it
// points straight back or up, lie within these bounds and stay unchanged.
constexpr double kFloatPi = 3.1415927727990827;
constexpr double kFloatHalfPi = 1.570796446004186;

// The angle congruent to `angle` modulo 2 pi that lies in [-pi, pi).
double Wrap(double angle) {
  const double turned = std::fmod(angle + kPi, 2.0 * kPi);
  return (turned < 0.0 ? turned + 2.0 * kPi : turned) - kPi;
}

using QuaternionD = std::array<double, 4>;

QuaternionD Widened(const float q[4]) { return {q[0], q[1], q[2], q[3]}; }

Quaternion Narrowed(const QuaternionD& q) {
  return {static_cast<float>(q[0]), static_cast<float>(q[1]), static_cast<float>(q[2]),
          static_cast<float>(q[3])};
}

QuaternionD AtUnitLength(const QuaternionD& q) {
  const double square = q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3];
  if (square == 0.0) return q;
  const double factor = 1.0 / std::sqrt(square);
  return {q[0] * factor, q[1] * factor, q[2] * factor, q[3] * factor};
}

QuaternionD UnitProduct(const QuaternionD& a, const QuaternionD& b) {
  return AtUnitLength({a[0] * b[0] - a[1] * b[1] - a[2] * b[2] - a[3] * b[3],
                       a[0] * b[1] + a[1] * b[0] + a[2] * b[3] - a[3] * b[2],
                       a[0] * b[2] - a[1] * b[3] + a[2] * b[0] + a[3] * b[1],
                       a[0] * b[3] + a[1] * b[2] - a[2] * b[1] + a[3] * b[0]});
}

// The cosine of the pitch below which floats cannot tell yaw from roll.
constexpr double kGimbalLock = 1.1920928955078125e-7;

}  // namespace

void NormalizeEuler(float angles[3]) {
  double yaw = angles[0];
  double pitch = angles[1];
  double roll = angles[2];
  if (pitch >= kFloatPi || pitch <= -kFloatPi) pitch = Wrap(pitch);
  if (pitch > kFloatHalfPi) {
    pitch = kPi - pitch;
    yaw += kPi;
  } else if (pitch <= -kFloatHalfPi) {
    pitch = -kPi - pitch;
    yaw += kPi;
  }
  if (roll >= kFloatPi || roll < -kFloatPi) roll = Wrap(roll);
  if (yaw > kFloatPi || yaw < -kFloatPi) yaw = Wrap(yaw);

  angles[0] = static_cast<float>(yaw);
  angles[1] = static_cast<float>(pitch);
  angles[2] = static_cast<float>(roll);
}

void AddPoseOffset(float pose[6], const float offset[6]) {
  for (int i = 0; i < 6; ++i) pose[i] += offset[i];
  NormalizeEuler(pose + 3);
}

Quaternion EulerToQuaternion(const float angles[3]) {
  const double y = angles[0] / 2.0;
  const double p = angles[1] / 2.0;
  const double r = angles[2] / 2.0;
  const QuaternionD yaw = {std::cos(y), 0.0, 0.0, std::sin(y)};
  const QuaternionD pitch = {std::cos(p), 0.0, std::sin(p), 0.0};
  const QuaternionD roll = {std::cos(r), std::sin(r), 0.0, 0.0};
  return Narrowed(UnitProduct(UnitProduct(yaw, pitch), roll));
}

std::array<float, 3> QuaternionToEuler(float q[4]) {
  const QuaternionD unit = AtUnitLength(Widened(q));
  std::ranges::copy(Narrowed(unit), q);
  const auto [w, x, y, z] = unit;
  const double sine = 2.0 * (w * y - x * z);
  const double cosine = std::sqrt(std::max(0.0, 1.0 - sine * sine));
  const auto pitch = static_cast<float>(std::atan2(sine, cosine));
  if (cosine < kGimbalLock) {  // the whole turn goes into the roll
    const double roll = std::atan2(2.0 * (w * x - y * z), 1.0 - 2.0 * (x * x + z * z));
    return {0.0F, pitch, static_cast<float>(roll)};
  }
  const double yaw = std::atan2(2.0 * (x * y + w * z), 1.0 - 2.0 * (y * y + z * z));
  const double roll = std::atan2(2.0 * (w * x + y * z), 1.0 - 2.0 * (x * x + y * y));
  return {static_cast<float>(yaw), pitch, static_cast<float>(roll)};
}

Quaternion UnitProduct(const float a[4], const float b[4]) {
  return Narrowed(UnitProduct(Widened(a), Widened(b)));
}

void NormalizeQuaternion(float q[4]) { std::ranges::copy(Narrowed(AtUnitLength(Widened(q))), q); }

bool IsUnit(const Quaternion& q) {
  constexpr float kTolerance = 0.05F;
  const float square = q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3];
  return std::fabs(square - 1) <= 2 * kTolerance;
}

}  // namespace kinetrel

#include "devices/pose.h"

#include <cmath>

namespace kinetrel {
namespace {

// A little above pi and pi/2, so that the nearest a float comes to either, from a device that is
// pointed straight up or back, is within the bounds and stays as it is.
constexpr double kFloatPi = 3.1415927727990827;
constexpr double kFloatHalfPi = 1.570796446004186;

// The angle congruent to `angle` modulo 2 pi that lies in [-pi, pi).
double Wrap(double angle) {
  const double turned = std::fmod(angle + kPi, 2.0 * kPi);
  return (turned < 0.0 ? turned + 2.0 * kPi : turned) - kPi;
}

using QuaternionD = std::array<double, 4>;

QuaternionD UnitProduct(const QuaternionD& a, const QuaternionD& b) {
  QuaternionD c = {a[0] * b[0] - a[1] * b[1] - a[2] * b[2] - a[3] * b[3],
                   a[0] * b[1] + a[1] * b[0] + a[2] * b[3] - a[3] * b[2],
                   a[0] * b[2] - a[1] * b[3] + a[2] * b[0] + a[3] * b[1],
                   a[0] * b[3] + a[1] * b[2] - a[2] * b[1] + a[3] * b[0]};
  const double length = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2] + c[3] * c[3]);
  for (double& part : c) part /= length;
  return c;
}

}  // namespace

void NormalizeEuler(float angles[3]) {
  double yaw = angles[0];
  double pitch = angles[1];
  double roll = angles[2];
  if (!std::isfinite(yaw) || !std::isfinite(pitch) || !std::isfinite(roll)) return;

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
  const QuaternionD whole = UnitProduct(UnitProduct(yaw, pitch), roll);
  return {static_cast<float>(whole[0]), static_cast<float>(whole[1]), static_cast<float>(whole[2]),
          static_cast<float>(whole[3])};
}

}  // namespace kinetrel

// Pose records and their arithmetic, shared by drivers and filters.
//
// A pose is 6 floats: x, y, z in the configured length unit, then yaw (azimuth), pitch
// (elevation), roll in radians. Rotation order: yaw about z, then pitch about y, then roll about
// x. A quaternion is 4 floats, scalar first.
#pragma once

#include <array>

namespace kinetrel {

using Pose = std::array<float, 6>;
using Quaternion = std::array<float, 4>;

inline constexpr Quaternion kIdentityQuaternion = {1.0F, 0.0F, 0.0F, 0.0F};

inline constexpr double kPi = 3.141592653589793;
inline constexpr double kRadiansPerDegree = 0.017453292519943295;
inline constexpr double kDegreesPerRadian = 57.29577951308232;

// Brings yaw and roll into [-pi, pi] and folds pitch into [-pi/2, pi/2]. A fold turns yaw by pi and
// leaves roll unchanged. An infinite angle becomes NaN and does not affect the others.
void NormalizeEuler(float angles[3]);

// Adds the offset component by component, then normalises the angles of the pose.
void AddPoseOffset(float pose[6], const float offset[6]);

// The unit quaternion of yaw, pitch, roll.
Quaternion EulerToQuaternion(const float angles[3]);

// Yaw, pitch, roll of a quaternion: the inverse of EulerToQuaternion. Brings `q` to unit length in
// place. Straight up and straight down, yaw and roll are not distinct: yaw is 0 there.
std::array<float, 3> QuaternionToEuler(float q[4]);

// The Hamilton product at unit length: turns by `b`, then by `a`. All zeros if `a` or `b` is.
Quaternion UnitProduct(const float a[4], const float b[4]);

void NormalizeQuaternion(float q[4]);  // to unit length; all zeros stay zero

// Whether the length is 1 within 5 %; also false for what is not a number.
bool IsUnit(const Quaternion& q);

}  // namespace kinetrel

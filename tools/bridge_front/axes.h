// Axes, angles and units: from the tracker's frame to the frame of a target. Pure functions.
//
// The tracker's frame T: x forward, y right, z down, right-handed. Azimuth turns about z, then
// elevation about the new y, then roll about the new x. A target has axes that are T's axes renamed
// and turned round, and a unit of length:
//
//     p' = scale A p      R' = A R A^T      q' = (w, d A v)      d = det A = +1 or -1
//
// The sensor's own axes are renamed as the world's are, so a sensor that is not turned gives the
// identity everywhere. With d = -1 the target is left-handed.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string_view>

namespace kinetrel::bridge {

using Vector = std::array<double, 3>;
using Matrix = std::array<Vector, 3>;  // rows

struct Quaternion {
  double w = 1;
  double x = 0;
  double y = 0;
  double z = 0;
};

// Of T, in radians: R = Rz(azimuth) Ry(elevation) Rx(roll).
struct Angles {
  double azimuth = 0;    // nose to the right is positive
  double elevation = 0;  // nose up is positive
  double roll = 0;       // right side down is positive
};

inline constexpr Matrix kIdentity = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};

// ---- Arithmetic
// ----------------------------------------------------------------------------------

Vector operator*(const Matrix& left, const Vector& right);
Matrix operator*(const Matrix& left, const Matrix& right);
Matrix Transposed(const Matrix& matrix);
double Determinant(const Matrix& matrix);

// Hamilton's product: the right one turns first.
Quaternion operator*(const Quaternion& left, const Quaternion& right);

// Length 1; empty if it is shorter than 0.5 or not finite: the sensor is not seen then.
std::optional<Quaternion> Normalised(const Quaternion& quaternion);

Matrix MatrixOf(const Quaternion& unit);
Quaternion QuaternionOf(const Angles& angles);
Angles AnglesOf(const Matrix& rotation);  // roll is 0 where the nose points straight up or down

// ---- Targets
// -------------------------------------------------------------------------------------

struct Axes {
  Matrix rows = kIdentity;  // the target's axes, written in T
  double scale = 1;         // units of length of the target in one metre
};

Vector PositionIn(const Axes& axes, const Vector& metres);
Quaternion OrientationIn(const Axes& axes, const Quaternion& unit);

struct AxesPreset {
  std::string_view name;
  Axes axes;
  std::string_view words;  // "x right, y up, z forward; m"
};

std::span<const AxesPreset> AxesPresets();
const AxesPreset* FindAxesPreset(std::string_view name);  // null: unknown

// The matrix of "x,-z,y" (each target axis as an axis of T with its sign), of nine numbers row by
// row, or of a preset's name. Empty unless the rows are unit vectors at right angles (to 1e-6).
std::optional<Matrix> ParseAxes(std::string_view text);

}  // namespace kinetrel::bridge

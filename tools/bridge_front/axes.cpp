#include "bridge_front/axes.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <vector>

namespace kinetrel::bridge {

// ---- Arithmetic
// ----------------------------------------------------------------------------------

Vector operator*(const Matrix& left, const Vector& right) {
  Vector product{};
  for (std::size_t row = 0; row < 3; ++row) {
    for (std::size_t i = 0; i < 3; ++i) product[row] += left[row][i] * right[i];
  }
  return product;
}

Matrix operator*(const Matrix& left, const Matrix& right) {
  Matrix product{};
  for (std::size_t row = 0; row < 3; ++row) {
    for (std::size_t column = 0; column < 3; ++column) {
      for (std::size_t i = 0; i < 3; ++i) product[row][column] += left[row][i] * right[i][column];
    }
  }
  return product;
}

Matrix Transposed(const Matrix& m) {
  return {{{m[0][0], m[1][0], m[2][0]}, {m[0][1], m[1][1], m[2][1]}, {m[0][2], m[1][2], m[2][2]}}};
}

double Determinant(const Matrix& m) {
  return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
         m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
         m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

Quaternion operator*(const Quaternion& a, const Quaternion& b) {
  return {
      a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z, a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
      a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x, a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}

std::optional<Quaternion> Normalised(const Quaternion& q) {
  const double length = std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
  if (!std::isfinite(length) || length < 0.5) return {};
  return Quaternion{q.w / length, q.x / length, q.y / length, q.z / length};
}

Matrix MatrixOf(const Quaternion& q) {
  return {
      {{1 - 2 * (q.y * q.y + q.z * q.z), 2 * (q.x * q.y - q.w * q.z), 2 * (q.x * q.z + q.w * q.y)},
       {2 * (q.x * q.y + q.w * q.z), 1 - 2 * (q.x * q.x + q.z * q.z), 2 * (q.y * q.z - q.w * q.x)},
       {2 * (q.x * q.z - q.w * q.y), 2 * (q.y * q.z + q.w * q.x),
        1 - 2 * (q.x * q.x + q.y * q.y)}}};
}

Quaternion QuaternionOf(const Angles& angles) {
  const Quaternion azimuth{std::cos(angles.azimuth / 2), 0, 0, std::sin(angles.azimuth / 2)};
  const Quaternion elevation{std::cos(angles.elevation / 2), 0, std::sin(angles.elevation / 2), 0};
  const Quaternion roll{std::cos(angles.roll / 2), std::sin(angles.roll / 2), 0, 0};
  return azimuth * elevation * roll;
}

Angles AnglesOf(const Matrix& r) {
  const double elevation = -std::asin(std::clamp(r[2][0], -1.0, 1.0));
  if (std::abs(r[2][0]) > 0.999999) return {std::atan2(-r[0][1], r[1][1]), elevation, 0};
  return {std::atan2(r[1][0], r[0][0]), elevation, std::atan2(r[2][1], r[2][2])};
}

// ---- Targets
// -------------------------------------------------------------------------------------

Vector PositionIn(const Axes& axes, const Vector& metres) {
  Vector position = axes.rows * metres;
  for (double& value : position) value *= axes.scale;
  return position;
}

Quaternion OrientationIn(const Axes& axes, const Quaternion& q) {
  const double d = Determinant(axes.rows) < 0 ? -1 : 1;
  const Vector v = axes.rows * Vector{q.x, q.y, q.z};
  return {q.w, d * v[0], d * v[1], d * v[2]};
}

namespace {

constexpr Matrix kUnity = {{{0, 1, 0}, {0, 0, -1}, {1, 0, 0}}};
constexpr Matrix kOpenGl = {{{0, 1, 0}, {0, 0, -1}, {-1, 0, 0}}};
constexpr Matrix kRos = {{{1, 0, 0}, {0, -1, 0}, {0, 0, -1}}};
constexpr Matrix kCamera = {{{0, 1, 0}, {1, 0, 0}, {0, 0, -1}}};

constexpr AxesPreset kPresets[] = {
    {"tracker", {}, "x forward, y right, z down; m"},
    {"ros", {kRos, 1}, "x forward, y left, z up; m"},
    {"unity", {kUnity, 1}, "x right, y up, z forward, left-handed; m"},
    {"unreal",
     {{{{1, 0, 0}, {0, 1, 0}, {0, 0, -1}}}, 100},
     "x forward, y right, z up, left-handed; cm"},
    {"opengl", {kOpenGl, 1}, "x right, y up, z back; m"},
    {"freed", {kCamera, 1000}, "x right, y forward, z up; mm"},
    {"opentrackio", {kCamera, 1}, "x right, y forward, z up; m"},
    {"adm", {kCamera, 1}, "x right, y forward, z up; m"},
    {"opentrack",
     {{{{0, -1, 0}, {0, 0, -1}, {-1, 0, 0}}}, 100},
     "x left, y up, z back, left-handed; cm"},
    {"psn", {kUnity, 1}, "x right, y up, z away from the audience, left-handed; m"},
    {"dtrack", {kRos, 1000}, "x forward, y left, z up; mm"},
    {"dtrack-y-up", {kOpenGl, 1000}, "x right, y up, z back; mm"},
};

std::vector<std::string_view> SplitAtCommas(std::string_view text) {
  std::vector<std::string_view> parts;
  for (;;) {
    const std::size_t comma = text.find(',');
    parts.push_back(text.substr(0, comma));
    if (comma == std::string_view::npos) return parts;
    text.remove_prefix(comma + 1);
  }
}

// "-z" as a row.
std::optional<Vector> ParseAxis(std::string_view text) {
  double sign = 1;
  if (text.starts_with('-') || text.starts_with('+')) {
    if (text[0] == '-') sign = -1;
    text.remove_prefix(1);
  }
  if (text.size() != 1 || text[0] < 'x' || text[0] > 'z') return {};
  Vector row{};
  row[static_cast<std::size_t>(text[0] - 'x')] = sign;
  return row;
}

bool IsOrthogonal(const Matrix& matrix) {
  const Matrix product = matrix * Transposed(matrix);
  for (std::size_t row = 0; row < 3; ++row) {
    for (std::size_t column = 0; column < 3; ++column) {
      // A number that is not finite fails this too.
      if (!(std::abs(product[row][column] - kIdentity[row][column]) <= 1e-6)) return false;
    }
  }
  return true;
}

}  // namespace

std::span<const AxesPreset> AxesPresets() { return kPresets; }

const AxesPreset* FindAxesPreset(std::string_view name) {
  const auto* const found = std::find_if(std::begin(kPresets), std::end(kPresets),
                                         [&](const AxesPreset& row) { return row.name == name; });
  return found == std::end(kPresets) ? nullptr : found;
}

std::optional<Matrix> ParseAxes(std::string_view text) {
  if (const AxesPreset* const preset = FindAxesPreset(text)) return preset->axes.rows;
  const std::vector<std::string_view> parts = SplitAtCommas(text);
  Matrix matrix{};
  if (parts.size() == 3) {
    for (std::size_t i = 0; i < 3; ++i) {
      const auto row = ParseAxis(parts[i]);
      if (!row) return {};
      matrix[i] = *row;
    }
  } else if (parts.size() == 9) {
    for (std::size_t i = 0; i < 9; ++i) {
      const char* const end = parts[i].data() + parts[i].size();
      const auto read = std::from_chars(parts[i].data(), end, matrix[i / 3][i % 3]);
      if (read.ec != std::errc() || read.ptr != end) return {};
    }
  } else {
    return {};
  }
  if (!IsOrthogonal(matrix)) return {};
  return matrix;
}

}  // namespace kinetrel::bridge

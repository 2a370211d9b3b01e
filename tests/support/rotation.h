// Rotation matrices, to work out by other means what pose arithmetic should give.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>

namespace kinetrel::test {

struct Matrix {
  std::array<std::array<double, 3>, 3> rows{};

  friend Matrix operator*(const Matrix& a, const Matrix& b) {
    Matrix product;
    for (std::size_t i = 0; i < 9; ++i) {
      for (std::size_t k = 0; k < 3; ++k) {
        product.rows[i / 3][i % 3] += a.rows[i / 3][k] * b.rows[k][i % 3];
      }
    }
    return product;
  }
};

inline Matrix Transposed(const Matrix& m) {  // the opposite rotation
  Matrix t;
  for (std::size_t i = 0; i < 9; ++i) t.rows[i % 3][i / 3] = m.rows[i / 3][i % 3];
  return t;
}

// The largest difference between two elements.
inline double Distance(const Matrix& a, const Matrix& b) {
  double most = 0;
  for (std::size_t i = 0; i < 9; ++i) {
    most = std::max(most, std::abs(a.rows[i / 3][i % 3] - b.rows[i / 3][i % 3]));
  }
  return most;
}

// Yaw about z, then pitch about y, then roll about x.
inline Matrix RotationOf(const std::array<float, 3>& angles) {
  const double cy = std::cos(angles[0]), sy = std::sin(angles[0]);
  const double cp = std::cos(angles[1]), sp = std::sin(angles[1]);
  const double cr = std::cos(angles[2]), sr = std::sin(angles[2]);
  const Matrix yaw{{{{cy, -sy, 0}, {sy, cy, 0}, {0, 0, 1}}}};
  const Matrix pitch{{{{cp, 0, sp}, {0, 1, 0}, {-sp, 0, cp}}}};
  const Matrix roll{{{{1, 0, 0}, {0, cr, -sr}, {0, sr, cr}}}};
  return yaw * pitch * roll;
}

// By the turn's axis n and angle t: R = cos t I + sin t [n]x + (1 - cos t) n n'.
inline Matrix RotationOf(const std::array<float, 4>& q) {
  const double sine = std::hypot(q[1], q[2], q[3]);
  if (sine == 0) return {{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}}};
  const std::array<double, 3> n = {q[1] / sine, q[2] / sine, q[3] / sine};
  const double turn = 2 * std::atan2(sine, q[0]);
  const Matrix cross{{{{0, -n[2], n[1]}, {n[2], 0, -n[0]}, {-n[1], n[0], 0}}}};
  Matrix r;
  for (std::size_t i = 0; i < 9; ++i) {
    const std::size_t row = i / 3, column = i % 3;
    r.rows[row][column] = (row == column ? std::cos(turn) : 0) +
                          std::sin(turn) * cross.rows[row][column] +
                          (1 - std::cos(turn)) * n[row] * n[column];
  }
  return r;
}

}  // namespace kinetrel::test

// Measured poses beside the true ones, and the table of them in a file.
//
// The file is text with one line a point. The first line names the columns, in any order:
//
//   measured_x_m,measured_y_m,measured_z_m,true_x_m,true_y_m,true_z_m
//   measured_azimuth_deg,measured_elevation_deg,measured_roll_deg,true_azimuth_deg,... (may miss)
//   point                                                         (may miss; the point's name)
//
// Other columns are passed over. Commas, semicolons or tabs separate the columns; numbers have a
// decimal point. Empty lines and lines that begin with '#' are comments.
#pragma once

#include <iosfwd>
#include <span>
#include <string>
#include <vector>

#include "filters/rigid_math.h"

namespace kinetrel {

struct PosePair {
  Vector3 measured{};  // m
  Vector3 truth{};
  Rotation measuredOrientation = kNoRotation;
  Rotation trueOrientation = kNoRotation;
  int line = 0;      // in the file, from 1
  std::string name;  // empty: it has none
};

struct PosePairTable {
  std::vector<PosePair> pairs;
  bool hasMeasured = false;      // else the file has only the true poses
  bool hasOrientations = false;  // true ones, and measured ones with the measured positions
};

enum class PoseColumns { MeasuredAndTrue, TrueAtLeast };

// False: `error` receives a sentence for the user, with the line.
bool ReadPosePairs(std::istream& from, PoseColumns needed, PosePairTable& table,
                   std::string& error);

// A path that cannot be read is an error too.
bool ReadPosePairFile(const std::string& path, PoseColumns needed, PosePairTable& table,
                      std::string& error);

// With the measured columns.
void WritePosePairs(std::ostream& to, const PosePairTable& table);

}  // namespace kinetrel

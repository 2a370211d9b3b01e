// Poses from a file of comma-separated values.
//
// The first line names the columns, in any order: x, y, z (cm), azimuth, elevation, roll (degrees);
// station (from 1; without it every row is for all stations), and frame or time (s), which say when
// a row begins to hold. With neither, a station's rows are its frames. A missing pose column is 0.
// Past the last row it starts again. Lines that are empty or begin with # are passed over.
//
//   time,station,x,y,z,azimuth,elevation,roll
//   0,1,10,0,0,0,0,0
//   0.5,1,12.5,0,0,90,0,0
#pragma once

#include <istream>
#include <string>

#include "emulate/motion.h"

namespace kinetrel {

// A million rows at the most.
MadeMotion ReadMotion(std::istream& text);
MadeMotion ReadMotionFile(const std::string& path);

}  // namespace kinetrel

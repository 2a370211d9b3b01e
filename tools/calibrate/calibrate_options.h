// The command line of kinetrel-calibrate.
#pragma once

#include <optional>
#include <string>

#include "calibrate/sensor_reader.h"
#include "filters/distortion_map.h"
#include "program/program.h"

namespace kinetrel::calibrate {

enum class Job { Room, Tip, Map };

struct CalibrateOptions {
  Job job = Job::Tip;
  int slot = 1;
  unsigned sensor = 1;  // counted from 1
  WhichPose which = WhichPose::Device;
  double seconds = 0.0;  // of measuring: a point, or the tip
  std::string points;    // path of the table
  std::string output;    // path without its ending
  bool force = false;    // replaces files
  MapModel model = MapModel::Multiquadric;
  int degree = 3;
};

struct CalibrateCommand {
  CalibrateOptions options;
  std::optional<Ending> ending;  // set: measure nothing
};

CalibrateCommand ParseCalibrateCommand(int count, const char* const* arguments);

}  // namespace kinetrel::calibrate

#include "calibrate/calibrate_options.h"

#include "program/command_line.h"

namespace kinetrel::calibrate {
namespace {

constexpr const char* kFooter =
    "Each step waits for Enter, or for a line of a script. q ends, r measures the last point "
    "again.\n"
    "Do the map first, then the tip, then the room; each with --filtered and the filters before "
    "it.\n"
    "Exit codes: 0 written; 1 measured, but not good enough or not possible; 2 bad arguments.\n";

void AddTracker(CLI::App& app, CalibrateOptions& options, const char* seconds) {
  app.add_option("--slot", options.slot, "Slot of the tracker")
      ->check(NumberFrom(1, 16))
      ->capture_default_str();
  app.add_option("--sensor", options.sensor, "Sensor, counted from 1")
      ->check(NumberFrom(1, 32))
      ->capture_default_str();
  app.add_flag_callback(
      "--filtered", [&options] { options.which = WhichPose::Filtered; },
      "Measure what the running filters make, not the device's own poses");
  app.add_option("--seconds", options.seconds, seconds)->check(NumberFrom(0.1, 600.0));
  app.add_option("--output", options.output, "Name of the files to write, without their endings")
      ->capture_default_str();
  app.add_flag("--force", options.force, "Replace files that exist");
}

void AddPoints(CLI::App& app, CalibrateOptions& options) {
  app.add_option(
         "--points", options.points,
         "Table of the true positions (CSV). With measured positions in it no tracker is read")
      ->required();
}

}  // namespace

CalibrateCommand ParseCalibrateCommand(int count, const char* const* arguments) {
  CalibrateCommand command;
  CalibrateOptions& options = command.options;
  ToolCommandLine app("kinetrel-calibrate",
                      "Measures a room, a tool or a distortion and writes filters for kinetrel.",
                      kFooter);
  app.require_subcommand(1);
  CLI::App& room =
      *app.add_subcommand("room", "How the tracker stands in the room, from known points");
  CLI::App& tip = *app.add_subcommand("tip", "Where a tool's tip is, by pivoting about it");
  CLI::App& map = *app.add_subcommand("map", "How metal bends the poses, from many known points");
  AddTracker(room, options, "Seconds at each point [1]");
  AddPoints(room, options);
  AddTracker(tip, options, "Seconds of pivoting [20]");
  AddTracker(map, options, "Seconds at each point [1]");
  AddPoints(map, options);
  map.add_option("--model", options.model, "multiquadric or polynomial")
      ->transform(CLI::CheckedTransformer(std::map<std::string, MapModel>{
          {"multiquadric", MapModel::Multiquadric}, {"polynomial", MapModel::Polynomial}}));
  map.add_option("--degree", options.degree, "Of the polynomial")
      ->check(NumberFrom(1, 4))
      ->capture_default_str();
  command.ending = app.Read(count, arguments);
  if (command.ending) return command;
  options.job = room.parsed() ? Job::Room : tip.parsed() ? Job::Tip : Job::Map;
  if (options.seconds == 0.0) options.seconds = options.job == Job::Tip ? 20.0 : 1.0;
  if (options.output.empty()) {
    options.output = options.job == Job::Room ? "room" : options.job == Job::Tip ? "tip" : "map";
  }
  return command;
}

}  // namespace kinetrel::calibrate

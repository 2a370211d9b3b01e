#include "record/record_options.h"

#include <kinetrel/stream.h>

#include <algorithm>

#include "program/command_line.h"

namespace kinetrel::record {
namespace {

constexpr const char* kAbout =
    "Records the poses of trackers into an MCAP file, converts such a file to a table, or plays "
    "it\n"
    "as if the tracker were there. While it records, each line that is typed becomes a marker.";
constexpr const char* kExitCodes =
    "Exit codes: 0 done, or ended by a signal; 1 the file could not be written or read, or no "
    "pose\n"
    "came; 2 bad arguments.\n";

}  // namespace

RecordCommand ParseRecordCommand(int count, const char* const* arguments) {
  RecordCommand command;
  RecordOptions& options = command.options;
  bool csv = false, tsv = false, trc = false, play = false;
  ToolCommandLine app("kinetrel-record", kAbout, kExitCodes);
  app.add_option("file", options.file, "the recording")->type_name("FILE.mcap")->required();
  app.add_option("--slot", options.slots,
                 "slot of the tracker (1); may be repeated while recording")
      ->type_name("NUMBER")
      ->check(NumberFrom(1, int{kinetrel_stream_slots}))
      ->allow_extra_args(false);
  auto* seconds = app.add_option("--seconds", options.seconds, "end so long after the first pose")
                      ->type_name("SECONDS")
                      ->check(NumberFrom(0.01, 1e9));
  auto* until =
      app.add_option("--until", options.until, "end when this key is typed")
          ->type_name("KEY")
          ->check(CLI::Validator(
              [](const std::string& text) {
                return text.size() == 1 ? "" : std::string("wants one character, such as q");
              },
              ""));
  auto* port = app.add_option("--marker-port", options.markerPort,
                              "take each UDP packet to this port as a marker")
                   ->type_name("PORT")
                   ->check(NumberFrom(1, 65535));
  app.add_flag("--markers-from-network", options.markersFromNetwork, "from other machines too")
      ->needs(port);
  auto* toCsv = app.add_flag("--to-csv", csv, "convert: a row for each pose");
  auto* toTsv = app.add_flag("--to-tsv", tsv, "convert: BIDS motion, several files");
  auto* toTrc =
      app.add_flag("--to-trc", trc, "convert: positions in millimetres, a row for each frame");
  app.add_option("--output", options.output,
                 "write the table there; for --to-tsv the name before _motion.tsv")
      ->type_name("FILE");
  auto* force = app.add_flag("--force", options.force, "replace files that exist");
  auto* toPlay = app.add_flag("--play", play, "publish the recording on --slot");
  app.add_option("--from-slot", options.fromSlot,
                 "play the tracker of this slot of the recording (the first)")
      ->type_name("NUMBER")
      ->check(NumberFrom(1, int{kinetrel_stream_slots}))
      ->needs(toPlay);
  app.add_option("--speed", options.speed, "play faster or slower (1)")
      ->type_name("FACTOR")
      ->check(NumberFrom(0.01, 100.0))
      ->needs(toPlay);
  app.add_flag("--loop", options.loop, "play again and again")->needs(toPlay);
  for (CLI::Option* each : {toCsv, toTsv, toTrc, toPlay}) {
    for (CLI::Option* other : {toCsv, toTsv, toTrc, toPlay, seconds, until, port}) {
      if (other != each) each->excludes(other);
    }
  }
  toPlay->excludes(force);
  command.ending = app.Read(count, arguments);
  if (command.ending) return command;
  options.task = play ? Task::Play : csv || tsv || trc ? Task::Convert : Task::Record;
  options.format = tsv ? Export::Tsv : trc ? Export::Trc : Export::Csv;
  if (options.task != Task::Record && options.slots.size() > 1) {
    command.ending = app.Mistake("only a recording takes more than one --slot");
  }
  auto& slots = options.slots;
  std::ranges::sort(slots);
  slots.erase(std::unique(slots.begin(), slots.end()), slots.end());
  if (options.task == Task::Record && options.slots.empty()) options.slots.push_back(1);
  return command;
}

}  // namespace kinetrel::record

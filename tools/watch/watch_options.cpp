#include "watch/watch_options.h"

#include <climits>
#include <cmath>

#include "program/command_line.h"
#include "publish/shared_track_block.h"

namespace kinetrel::watch {
namespace {

constexpr const char* kAbout =
    "Shows the poses that a running tracker publishes: a table on a terminal, one line\n"
    "per frame elsewhere. Waits for a tracker that has not started yet, and for one that comes "
    "back.\n"
    "q, ESC or Ctrl-C ends it.";

constexpr const char* kFooter =
    "A frame is one record of the stream: one sensor's pose, in metres, with its age on this\n"
    "machine's clock. With --block it is one publication of the block, and frames that come\n"
    "faster than they are shown are passed over. On a terminal l shows the status log.\n"
    "\nExit codes:\n"
    "  0  done, or ended by a signal or by the reader of its output\n"
    "  1  the shared memory cannot be opened\n"
    "  2  bad arguments\n"
    "  3  no frame came within --timeout\n"
    "  4  the output cannot be written";

constexpr double kLeastTimeout = 0.001;  // s
constexpr double kMostTimeout = 1'000'000;

}  // namespace

WatchCommand ParseWatchCommand(int count, const char* const* arguments) {
  WatchCommand command;
  WatchOptions& options = command.options;
  ToolCommandLine app("kinetrel-watch", kAbout, kFooter);
  app.add_option("--slot", options.slot,
                 "shared-memory slot, 1 to 16, as kinetrel -w counts them (1)")
      ->type_name("NUMBER")
      ->check(NumberFrom(1, kSharedDevices));
  app.add_flag("--log", options.log, "print the newest lines of the status log and end");
  app.add_flag("--block", options.block, "watch the block that clients of the old format read");
  const CLI::Option* const bin =
      app.add_option("--bin", options.bin, "with the block of this bin of the slot, 0 to 15 (0)")
          ->type_name("NUMBER")
          ->check(NumberFrom(0, kSharedBins - 1));
  app.add_flag("--degrees", options.degrees, "angles in degrees instead of radians");
  app.add_flag_callback(
      "--plain", [&] { options.form = OutputForm::Plain; },
      "one line of text per frame, on a terminal too");
  app.add_flag_callback(
      "--json", [&] { options.form = OutputForm::Json; },
      "one JSON object per frame and line; null for what is not a number");
  app.add_flag_callback(
      "--once", [&] { options.frames = 1; }, "end after one frame");
  app.add_option("--frames", options.frames, "end after COUNT frames shown")
      ->type_name("COUNT")
      ->check(NumberFrom(1, INT_MAX));
  double seconds = 0;
  const CLI::Option* const timeout =
      app.add_option("--timeout", seconds, "give up when no frame comes for SECONDS")
          ->type_name("SECONDS")
          ->check(NumberFrom(kLeastTimeout, kMostTimeout));
  command.ending = app.Read(count, arguments);
  if (bin->count() > 0) options.block = true;
  if (timeout->count() > 0) options.timeout = Milliseconds(std::llround(seconds * 1000));
  return command;
}

}  // namespace kinetrel::watch

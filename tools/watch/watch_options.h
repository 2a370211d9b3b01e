// The command line of kinetrel-watch.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/clock.h"
#include "program/program.h"

namespace kinetrel::watch {

// The exit codes of the program; --help lists them.
enum class ExitCode : int {
  Done = 0,
  CannotOpen = 1,
  BadArguments = 2,
  TimedOut = 3,
  CannotWrite = 4,
};

enum class OutputForm {
  Automatic,  // a table on a terminal, else plain lines
  Plain,
  Json,
};

struct WatchOptions {
  int slot = 1;  // 1..16, as the operator counts them; the device number is one less
  int bin = 0;
  bool block = false;  // watch the block of the bin, not the record stream
  bool log = false;    // print the status log and end
  OutputForm form = OutputForm::Automatic;
  bool degrees = false;
  std::uint64_t frames = 0;             // end after this many; 0: never
  std::optional<Milliseconds> timeout;  // give up after this time without a frame
};

struct WatchCommand {
  std::optional<Ending> ending;  // set: watch nothing
  WatchOptions options;
};

// `arguments` as main has them, the program's name first. The last of several values counts.
WatchCommand ParseWatchCommand(int count, const char* const* arguments);

}  // namespace kinetrel::watch

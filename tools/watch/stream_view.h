// What kinetrel-watch shows of a record stream, as text. Pure: no clock, no terminal.
#pragma once

#include <kinetrel/stream.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "watch/watch_view.h"

namespace kinetrel::watch {

// What is known of a stream at one moment.
struct StreamSnapshot {
  int slot = 1;
  bool open = false;           // there is a stream, or there was one
  std::vector<int> elsewhere;  // while there is none: the slots in which trackers publish
  kinetrel_state state = kinetrel_state_unknown;
  std::string sentence;  // the state's
  kinetrel_run run{};
  std::uint64_t lost = 0;  // records
  std::int64_t nowNs = 0;  // of the client
  std::array<std::optional<kinetrel_record>, kinetrel_stream_sensors> newest;
  std::array<double, kinetrel_stream_sensors> rates{};  // records a second
  std::vector<kinetrel_log_line> log;                   // shown unless empty
};

std::vector<ViewLine> StreamTable(const StreamSnapshot& snapshot, const TableForm& form);

// The state as a sentence; "running" with its own.
std::string StreamStateWords(const StreamSnapshot& snapshot);

// One record on one line, without its end. Words, each followed by a fixed number of values:
//   record 812 frame 203 sensor 1 age 0.000600 position 1.0 2.0 3.0 angles ... quaternion ...
std::string PlainRecord(const kinetrel_record& record, std::int64_t nowNs, bool degrees);

// One record as one JSON object, without the end of the line.
std::string JsonRecord(const kinetrel_record& record, const StreamSnapshot& snapshot, bool degrees);

// A line of the status log, with its time in UTC.
std::string LogWords(const kinetrel_log_line& line);

}  // namespace kinetrel::watch

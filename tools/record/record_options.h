// The command line of kinetrel-record.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "program/program.h"
#include "record/exports.h"

namespace kinetrel::record {

enum class Task { Record, Convert, Play };

struct RecordOptions {
  Task task = Task::Record;
  std::string file;                 // the recording
  std::vector<int> slots;           // empty: 1 to record and to play on, the first one to convert
  double seconds = 0;               // 0: until it is ended
  std::string until;                // the key that ends it; empty: none
  std::uint16_t markerPort = 0;     // UDP; 0: none
  bool markersFromNetwork = false;  // not from this machine alone
  Export format = Export::Csv;
  std::string output;  // of Convert; empty: beside the recording
  bool force = false;  // replaces files that exist
  int fromSlot = 0;    // of Play: the tracker of the recording; 0: the first one
  double speed = 1.0;
  bool loop = false;
};

struct RecordCommand {
  std::optional<Ending> ending;  // set: do nothing else
  RecordOptions options;
};

RecordCommand ParseRecordCommand(int count, const char* const* arguments);

}  // namespace kinetrel::record

// What kinetrel-watch shows of a snapshot, as text. Pure: no clock, no terminal.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "watch/watch_snapshot.h"

namespace kinetrel {

enum class LineStyle { Plain, Strong, Faint, Alert };

struct ViewLine {
  std::string text;  // printable ASCII only
  LineStyle style = LineStyle::Plain;

  bool operator==(const ViewLine&) const = default;
};

struct TableForm {
  bool degrees = false;
  int columns = 80;                            // of the terminal; every line is shorter
  int rows = 24;                               // of the terminal; there are fewer lines
  std::optional<double> publicationRate = {};  // measured, publications a second
};

std::vector<ViewLine> TableView(const WatchSnapshot& snapshot, const TableForm& form);

// One frame on one line, without its end. Words, each followed by a fixed number of values:
//   frame 812 sample 13.5 published 13.5 sensor 1 position 1.0 2.0 3.0 angles 0.1 0.2 0.3 ...
std::string PlainView(const WatchSnapshot& snapshot, bool degrees);

// One frame as one JSON object, without the end of the line.
std::string JsonView(const WatchSnapshot& snapshot, bool degrees);

// The state as a sentence; empty while all is well.
std::string StateWords(const WatchSnapshot& snapshot);

}  // namespace kinetrel

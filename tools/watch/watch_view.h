// What kinetrel-watch shows of a snapshot, as text. Pure: no clock, no terminal. The block comes
// from another process: nothing of it reaches a terminal or a parser unchecked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "watch/frame_follower.h"

namespace kinetrel::watch {

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

// The state as a sentence; empty while the tracker runs.
std::string StateWords(const WatchSnapshot& snapshot);

// ---- Parts of the above -------------------------------------------------------------------------

// `text` with a '?' for each byte that is not printable ASCII. No control sequence gets through,
// and the result is valid in any encoding.
std::string AsciiText(std::string_view text);

std::string SensorWords(std::uint32_t mask);  // "1-3, 7", as the operator counts; "none"
std::string ButtonWords(std::uint32_t bits);  // "1, 4"; "none pressed"
std::string UnitWord(int code);               // "inch"

// `decimals` behind the point; "nan", "inf".
std::string Fixed(double value, int decimals);

// At most `width` wide, right-justified. A longer value is shown with an exponent.
std::string Cell(double value, std::size_t width, int decimals);

// The shortest text that reads back as the same value; "null" if JSON has no number for it.
std::string JsonNumber(float value);
std::string JsonNumber(double value);
std::string JsonText(std::string_view text);  // quoted and escaped, after AsciiText

}  // namespace kinetrel::watch

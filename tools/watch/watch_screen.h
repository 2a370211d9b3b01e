// A block of lines on a terminal, redrawn in place; and writing to standard output.
#pragma once

#include <string>
#include <vector>

#include "platform/console.h"
#include "watch/watch_view.h"

namespace kinetrel {

enum class WriteResult {
  Written,
  ReaderGone,  // the other end of the pipe is closed
  Failed,
};

// Writes to standard output, in one piece and at once.
WriteResult WriteOut(const std::string& text);

// The cursor is hidden only within a redraw, and stands below the lines between two: whatever ends
// or suspends the program leaves a usable terminal.
class WatchScreen {
 public:
  // Shows `lines` in place of those shown before; writes nothing when they are the same. The
  // lines must fit the size: fewer than its rows, each shorter than its columns.
  WriteResult Draw(const std::vector<ViewLine>& lines, TerminalSize size);

  // The next Draw begins below whatever the terminal shows.
  void StartBelow() { drawn_.clear(); }

 private:
  std::vector<ViewLine> drawn_;
  TerminalSize size_;
};

}  // namespace kinetrel

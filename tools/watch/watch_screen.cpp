#include "watch/watch_screen.h"

#include <cerrno>
#include <cstdio>

namespace kinetrel {
namespace {

constexpr const char* kHideCursor = "\x1b[?25l";
constexpr const char* kShowCursor = "\x1b[?25h";
constexpr const char* kClearAll = "\x1b[H\x1b[2J";
constexpr const char* kClearRight = "\x1b[K";
constexpr const char* kClearBelow = "\x1b[J";
constexpr const char* kNormal = "\x1b[m";

const char* Sequence(LineStyle style) {
  switch (style) {
    case LineStyle::Plain:
      return "";
    case LineStyle::Strong:
      return "\x1b[1m";
    case LineStyle::Faint:
      return "\x1b[2m";
    case LineStyle::Alert:
      return "\x1b[33m";
  }
  return "";
}

std::string Styled(const ViewLine& line) {
  if (line.style == LineStyle::Plain) return line.text;
  return Sequence(line.style) + line.text + kNormal;
}

std::string ToFirstLine(std::size_t linesAbove) {
  return linesAbove == 0 ? "\r" : "\r\x1b[" + std::to_string(linesAbove) + "A";
}

}  // namespace

WriteResult WriteOut(const std::string& text) {
  const std::size_t written = std::fwrite(text.data(), 1, text.size(), stdout);
  if (written == text.size() && std::fflush(stdout) == 0) return WriteResult::Written;
  return errno == EPIPE ? WriteResult::ReaderGone : WriteResult::Failed;
}

WriteResult WatchScreen::Draw(const std::vector<ViewLine>& lines, TerminalSize size) {
  // Lines that were drawn for another width may have been broken anew: nobody knows where.
  const bool resized = size.columns != size_.columns || size.rows != size_.rows;
  if (lines == drawn_ && !resized) return WriteResult::Written;
  std::string text = kHideCursor;
  text += resized && !drawn_.empty() ? kClearAll : ToFirstLine(drawn_.size());
  for (const ViewLine& line : lines) text += Styled(line) + kClearRight + "\r\n";
  text += kClearBelow;
  text += kShowCursor;
  drawn_ = lines;
  size_ = size;
  return WriteOut(text);
}

}  // namespace kinetrel

#include "watch/watch_face.h"

#include <cstdio>

namespace kinetrel::watch {
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

constexpr Milliseconds kDrawPeriod{50};
constexpr double kDrawSeconds = 0.05;

// Seconds between two looks at the bin. After a longer time the program was suspended, and the
// shell has used the terminal since.
constexpr double kSuspended = 0.8;

bool EndsWatching(Key key) {
  constexpr int kEscape = 27;
  return !key.extended && (key.code == 'q' || key.code == 'Q' || key.code == kEscape);
}

}  // namespace

// ---- WatchScreen --------------------------------------------------------------------------------

WriteResult WatchScreen::Draw(const std::vector<ViewLine>& lines, TerminalSize size) {
  // The terminal may have broken lines that were drawn for another width, at an unknown place.
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

// ---- LineFace -----------------------------------------------------------------------------------

LineFace::LineFace(const WatchOptions& options) : form_(options.form), degrees_(options.degrees) {}

WriteResult LineFace::Show(const WatchSnapshot& snapshot, bool frame) {
  Announce(snapshot);
  if (!frame) return WriteResult::Written;
  const std::string line =
      form_ == OutputForm::Json ? JsonView(snapshot, degrees_) : PlainView(snapshot, degrees_);
  return WriteOut(line + "\n");
}

void LineFace::Announce(const WatchSnapshot& snapshot) {
  if (snapshot.state == TrackerState::Starting || snapshot.state == announced_) return;
  std::string words = StateWords(snapshot);
  // No line for a tracker that runs from the start.
  if (words.empty() && announced_.has_value()) {
    words = "frames from " + AsciiText(DeviceNameOf(snapshot.block));
  }
  announced_ = snapshot.state;
  if (!words.empty()) std::fprintf(stderr, "kinetrel-watch: %s\n", words.c_str());
}

// ---- TableFace ----------------------------------------------------------------------------------

TableFace::TableFace(const WatchOptions& options) : degrees_(options.degrees) {
  if (options.frames == 0 && !options.timeout.has_value()) keys_.emplace();
}

WriteResult TableFace::Show(const WatchSnapshot& snapshot, bool frame) {
  const double now = timer_.ElapsedSeconds();
  if (now - lastShow_ > kSuspended) screen_.StartBelow();
  lastShow_ = now;
  if (frame) meter_.Add(now, snapshot.block.frameCount);
  rest_ = Milliseconds(0);
  return frame && now < nextDraw_ ? WriteResult::Written : Draw(snapshot, now);
}

WriteResult TableFace::Draw(const WatchSnapshot& snapshot, double now) {
  const auto count = static_cast<std::uint32_t>(snapshot.block.frameCount);
  if (count - countDrawn_ >= 2) rest_ = kDrawPeriod;
  countDrawn_ = count;
  nextDraw_ = now + kDrawSeconds;
  const TerminalSize size = StandardOutputSize();
  return screen_.Draw(TableView(snapshot, {.degrees = degrees_,
                                           .columns = size.columns,
                                           .rows = size.rows,
                                           .publicationRate = meter_.PerSecond()}),
                      size);
}

WriteResult TableFace::Finish(const WatchSnapshot& snapshot) {
  return Draw(snapshot, timer_.ElapsedSeconds());
}

bool TableFace::WantsEnd() {
  constexpr int kKeysAtOnce = 16;  // so that a pipe without end does not hold us
  for (int i = 0; i < kKeysAtOnce; ++i) {
    const std::optional<Key> key = TakeKey();
    if (!key.has_value()) return false;
    if (EndsWatching(*key)) return true;
  }
  return false;
}

}  // namespace kinetrel::watch

// The two faces of kinetrel-watch: a live table on a terminal, lines elsewhere.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/console.h"
#include "program/program.h"
#include "publish/track_timer.h"
#include "watch/frame_follower.h"
#include "watch/watch_options.h"
#include "watch/watch_view.h"

namespace kinetrel::watch {

// A block of lines on a terminal, redrawn in place.
//
// The cursor is hidden only during a redraw and otherwise stands below the lines, so that the
// terminal stays usable however the program ends or is suspended.
class WatchScreen {
 public:
  // Shows `lines` in place of those shown before; writes nothing when they are the same. The
  // lines must fit the size: fewer than its rows, each shorter than its columns.
  WriteResult Draw(const std::vector<ViewLine>& lines, TerminalSize size);

  // The next Draw begins below the present text of the terminal.
  void StartBelow() { drawn_.clear(); }

 private:
  std::vector<ViewLine> drawn_;
  TerminalSize size_;
};

class WatchFace {
 public:
  virtual ~WatchFace() = default;

  // frame  the snapshot holds a new frame; else only its state may have changed.
  virtual WriteResult Show(const WatchSnapshot& snapshot, bool frame) = 0;

  // Shows what Show has held back. The last call.
  virtual WriteResult Finish(const WatchSnapshot&) { return WriteResult::Written; }

  virtual Milliseconds Rest() const { return Milliseconds(0); }  // until the next frame is wanted
  virtual bool WantsEnd() { return false; }                      // the operator pressed a key
};

// One line per frame on standard output; changes of the state on standard error.
class LineFace final : public WatchFace {
 public:
  explicit LineFace(const WatchOptions& options);
  WriteResult Show(const WatchSnapshot& snapshot, bool frame) override;

 private:
  void Announce(const WatchSnapshot& snapshot);

  OutputForm form_;
  bool degrees_;
  std::optional<TrackerState> announced_;
};

// Draws at most 20 times a second and sleeps through frames that come faster. Watching costs at
// most one wake-up per frame, and at most 40 a second.
class TableFace final : public WatchFace {
 public:
  // Reads keys only if the watch has no end of its own. Otherwise standard input may belong to
  // other programs of a script.
  explicit TableFace(const WatchOptions& options);
  WriteResult Show(const WatchSnapshot& snapshot, bool frame) override;
  WriteResult Finish(const WatchSnapshot& snapshot) override;
  Milliseconds Rest() const override { return rest_; }
  bool WantsEnd() override;

 private:
  WriteResult Draw(const WatchSnapshot& snapshot, double now);

  bool degrees_;
  std::optional<KeySession> keys_;
  WatchScreen screen_;
  RateMeter meter_;
  TrackTimer timer_;
  double lastShow_ = 0;
  double nextDraw_ = 0;
  std::uint32_t countDrawn_ = 0;
  Milliseconds rest_{0};
};

}  // namespace kinetrel::watch

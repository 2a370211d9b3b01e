// Follows one bin of the shared memory: new frames, and how the one who writes them fares.
//
// Never in the writer's way: the bin's mutex is held for the copy of a block and no longer. One
// wake-up a frame; without frames, one for each Next.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/clock.h"
#include "platform/status.h"
#include "publish/shared_track_block.h"
#include "publish/shared_track_reader.h"
#include "publish/track_timer.h"

namespace kinetrel::watch {

enum class TrackerState {
  Awaited,   // no writer yet
  Starting,  // a writer, but no frame of it yet
  Running,
  Silent,  // a writer is said to be there, but nothing new comes: it may have been killed
  Gone,    // there was a writer, and it has closed
};

// What is known of a bin at one moment.
struct WatchSnapshot {
  int slot = 1;
  int bin = 0;
  TrackerState state = TrackerState::Awaited;
  double silence = 0;      // seconds since the last frame, or since waiting for one began
  SharedTrackBlock block;  // of one piece
};

class FrameFollower {
 public:
  FrameFollower(int slot, int bin);  // slot 1..16, bin 0..15

  // Opens the bin, and creates it where nobody has. Frames count from here on: what was published
  // before is not new.
  Status Open();

  // Waits for a new frame. False when none came within `patience`, and sooner when a writer has
  // begun afresh.
  bool Next(Milliseconds patience);

  // As Next left it.
  const WatchSnapshot& snapshot() const { return now_; }

 private:
  bool TakeNewest();
  void JudgeState(bool frame);

  SharedTrackReader reader_;
  TrackTimer timer_;
  WatchSnapshot now_;
  bool inStep_ = false;  // `last_` is a count of this bin
  int last_ = 0;
  double quietSince_ = 0;
  bool writerSeen_ = false;
  bool writerPresent_ = false;
  bool framesSeen_ = false;  // of the present writer
};

// How fast a count goes up, over about the last two seconds.
class RateMeter {
 public:
  // The count is `count` at `now` (seconds). A count that went back begins the measurement anew.
  void Add(double now, std::int32_t count);

  // In a second; nothing before there is half a second to tell it from.
  std::optional<double> PerSecond() const;

 private:
  struct Mark {
    double time = 0;
    std::int32_t count = 0;
  };

  void DropOldest();

  std::array<Mark, 64> marks_;  // oldest first
  std::size_t used_ = 0;
  Mark newest_;
};

}  // namespace kinetrel::watch

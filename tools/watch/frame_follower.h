// Follows one bin of the shared memory: its new frames, and the state of its writer.
//
// It holds the bin's mutex only for the copy of a block, so it does not delay the writer. It wakes
// once per frame; without frames, once per call of Next.
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
  Starting,  // a writer, but none of its frames yet
  Running,
  Silent,  // the block names a writer, but no new frames come: it may have been killed
  Gone,    // there was a writer, and it has closed
};

// What is known of a bin at one moment.
struct WatchSnapshot {
  int slot = 1;
  int bin = 0;
  TrackerState state = TrackerState::Awaited;
  double silence = 0;      // seconds since the last frame, or since waiting for one began
  SharedTrackBlock block;  // a consistent copy
};

class FrameFollower {
 public:
  FrameFollower(int slot, int bin);  // slot 1..16, bin 0..15

  // Opens the bin; creates it if it does not exist. Frames that were published before do not count
  // as new.
  Status Open();

  // Waits for a new frame. False if none came within `patience`, or when a writer has started
  // again.
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
  // The count is `count` at `now` (seconds). A lower count restarts the measurement.
  void Add(double now, std::int32_t count);

  // Per second; empty until the counts span half a second.
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

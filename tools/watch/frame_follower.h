// Follows one bin of the shared memory: new frames, and how the one who writes them fares.
//
// Never in the writer's way: the bin's mutex is held for the copy of a block and no longer. One
// wake-up a frame; without frames, one for each Next.
#pragma once

#include "platform/clock.h"
#include "platform/status.h"
#include "publish/shared_track_reader.h"
#include "publish/track_timer.h"
#include "watch/watch_snapshot.h"

namespace kinetrel {

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

}  // namespace kinetrel

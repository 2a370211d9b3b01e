// The frames of a recording at the pace at which they were recorded.
#pragma once

#include <cstdint>

#include "platform/clock.h"
#include "platform/timer.h"
#include "recording/recorded_frames.h"

namespace kinetrel::record {

struct Pace {
  double speed = 1;   // 2: twice as fast as it was recorded
  bool loop = false;  // at the end begin anew
};

// Gaps of the recording are gaps again.
//
// Threads  one at a time.
class PacedFrames {
 public:
  // frames  must live as long as this object, which alone reads them
  PacedFrames(RecordedFrames& frames, Pace pace) : frames_(frames), pace_(pace) {}

  // Waits until the next frame is due, at most `patience`. Null: it is not due yet, or the
  // recording has ended. The frame is valid until the next call. The first frame is due at once.
  const RecordedFrame* Next(Milliseconds patience);

  bool ended() const { return ended_; }
  std::uint64_t played() const { return played_; }  // frames that Next has returned
  double Rate();  // Hz of each sensor at this pace; 0: the recording does not tell

 private:
  bool Fetch();

  RecordedFrames& frames_;
  const Pace pace_;
  TimerResolution resolution_;
  RecordedFrame frame_;
  bool waits_ = false;          // frame_ is not played yet
  std::uint64_t firstUtc_ = 0;  // of this round of the recording ...
  double began_ = 0;            // ... was played at this time of the clock, in seconds
  bool begun_ = false;
  double due_ = 0;       // of frame_
  double period_ = 0.1;  // s, between the last two frames: how long the last one of a round stays
  std::uint64_t played_ = 0;
  bool ended_ = false;
};

}  // namespace kinetrel::record

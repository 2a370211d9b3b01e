// What kinetrel-watch knows of a bin at one moment.
#pragma once

#include "publish/shared_track_block.h"

namespace kinetrel {

enum class TrackerState {
  Awaited,   // no writer yet
  Starting,  // a writer, but no frame of it yet
  Running,
  Silent,  // a writer is said to be there, but nothing new comes: it may have been killed
  Gone,    // there was a writer, and it has closed
};

struct WatchSnapshot {
  int slot = 1;
  int bin = 0;
  TrackerState state = TrackerState::Awaited;
  double silence = 0;      // seconds since the last frame, or since waiting for one began
  SharedTrackBlock block;  // of one piece
};

}  // namespace kinetrel

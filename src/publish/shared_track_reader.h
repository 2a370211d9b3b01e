// A reader of published bins. It may come before the writer, and stay after it.
#pragma once

#include "publish/shared_track_memory.h"

namespace kinetrel {

class SharedTrackReader final : public SharedTrackMemory {
 public:
  explicit SharedTrackReader(int device) : SharedTrackMemory(device, kSharedBins) {}

  // Opens the bin; a block that nobody had made is initialised, without a writer.
  bool OpenBin(int bin) override;

  // An event that nobody had made is made for whom the account's default allows.
  bool MakeEvent(int bin) override;

  // Opens one bin and its event, for a client that wants no other, and makes it the current one.
  bool OpenOnly(int bin);

  // Copies the current bin's block in one piece. The mutex is held for the copy and no longer.
  bool Copy(SharedTrackBlock& into, Milliseconds timeout);
};

}  // namespace kinetrel

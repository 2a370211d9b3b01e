// A reader of published bins. It may open them before the writer does, and stay after it.
#pragma once

#include "publish/shared_track_memory.h"

namespace kinetrel {

class SharedTrackReader final : public SharedTrackMemory {
 public:
  explicit SharedTrackReader(int device) : SharedTrackMemory(device, kSharedBins) {}

  // Opens the bin. A block that no process has initialised yet is initialised, without a writer.
  bool OpenBin(int bin) override;

  // A new event is made for the accounts that this account's default allows.
  bool MakeEvent(int bin) override;

  // Opens one bin and its event, and makes it the current one.
  bool OpenOnly(int bin);

  // Copies the current bin's block. The mutex is held for the copy and no longer.
  bool Copy(SharedTrackBlock& into, Milliseconds timeout);
};

}  // namespace kinetrel

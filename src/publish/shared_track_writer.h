// The one writer of a device number's bins: the sampling thread's.
#pragma once

#include "publish/shared_track_memory.h"

namespace kinetrel {

class SharedTrackWriter final : public SharedTrackMemory {
 public:
  SharedTrackWriter(int device, int bins) : SharedTrackMemory(device, bins) {}
  ~SharedTrackWriter() override;  // as CloseAll

  // Also stamps the block's sampleTime with this writer's time.
  bool Lock(Milliseconds timeout) override;

  // Opens the bin and initialises its block, whatever it held, with the writer present.
  bool OpenBin(int bin) override;

  // Tells the readers of every bin that the writer has gone, then closes.
  bool CloseAll() override;

  // Another live process writes a bin of this device number too; known once bins are opened.
  bool rivalPresent() const { return rivalPresent_; }

 private:
  bool rivalPresent_ = false;
};

}  // namespace kinetrel

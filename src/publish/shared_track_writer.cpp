#include "publish/shared_track_writer.h"

namespace kinetrel {

SharedTrackWriter::~SharedTrackWriter() { SharedTrackWriter::CloseAll(); }

bool SharedTrackWriter::Lock(Milliseconds timeout) {
  // Clients on other CPUs used these last: asked for now, they arrive while the mutex does.
  current().PrefetchToWrite();
  if (!SharedTrackMemory::Lock(timeout)) return false;
  block()->sampleTime = timer().ElapsedSeconds();
  return true;
}

bool SharedTrackWriter::OpenBin(int number) {
  if (!OpenObjects(number, Initialize::Always, true)) return false;
  rivalPresent_ = !bin(number).memory->ClaimWriting() || rivalPresent_;
  return true;
}

bool SharedTrackWriter::CloseAll() {
  for (int number = 0; number < kSharedBins; ++number) {
    if (SelectBin(number) != number || !Lock(kForever)) continue;
    block()->writerPresent = 0;
    Unlock();
  }
  return SharedTrackMemory::CloseAll();
}

}  // namespace kinetrel

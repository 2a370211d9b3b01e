#include "publish/shared_track_reader.h"

namespace kinetrel {

bool SharedTrackReader::OpenBin(int number) {
  return OpenObjects(number, Initialize::WhenNew, false);
}

bool SharedTrackReader::MakeEvent(int number) { return OpenEvent(number, Access::AccountsDefault); }

bool SharedTrackReader::OpenOnly(int number) {
  return OpenBin(number) && MakeEvent(number) && SelectBin(number) == number;
}

bool SharedTrackReader::Copy(SharedTrackBlock& into, Milliseconds timeout) {
  if (!Lock(timeout)) return false;
  into = *block();
  return Unlock();
}

}  // namespace kinetrel

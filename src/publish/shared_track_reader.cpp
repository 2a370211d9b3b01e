#include "publish/shared_track_reader.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kNewBlockPatience{1000};
constexpr int kCopyTries = 3;

}  // namespace

bool SharedTrackReader::OpenBin(int number) {
  if (!OpenObjects(number)) return false;
  if (Initialise(number, Initialize::WhenNew, false, kNewBlockPatience)) return true;
  Fail(number, {Error::Busy, 0, "locking the mutex of a new block"});
  return false;
}

bool SharedTrackReader::MakeEvent(int number) { return OpenEvent(number, Access::AccountsDefault); }

bool SharedTrackReader::OpenOnly(int number) {
  return OpenBin(number) && MakeEvent(number) && SelectBin(number) == number;
}

bool SharedTrackReader::Copy(SharedTrackBlock& into, Milliseconds timeout) {
  for (int tries = 0; tries < kCopyTries; ++tries) {
    if (!Lock(timeout)) return false;
    into = *block();
    if (Unlock()) return true;  // else another program may have written meanwhile
  }
  return false;
}

}  // namespace kinetrel

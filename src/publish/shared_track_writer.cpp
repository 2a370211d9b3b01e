#include "publish/shared_track_writer.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace kinetrel {
namespace {

constexpr Milliseconds kCloseLimit{1000};
constexpr Milliseconds kSearchInterval{1000};
constexpr Milliseconds kNewsInterval{1000};

std::int64_t Ticks(Milliseconds time) { return time.count() * (ClockTicksPerSecond() / 1000); }

double SecondsBetween(std::int64_t from, std::int64_t to) {
  return static_cast<double>(to - from) / static_cast<double>(ClockTicksPerSecond());
}

}  // namespace

SharedTrackWriter::~SharedTrackWriter() { SharedTrackWriter::CloseAll(); }

// ---- Locking ---------------------------------------------------------------------------------

bool SharedTrackWriter::LockInitialised(Milliseconds timeout) {
  // Clients on other CPUs used these last: asked for now, they arrive while the mutex does.
  current().PrefetchToWrite();
  if (!SharedTrackMemory::Lock(timeout)) return false;
  if (std::exchange(standing().initialiseDue, false)) InitializeBlock(*block(), true);
  return true;
}

bool SharedTrackWriter::Lock(Milliseconds timeout) {
  if (!LockInitialised(timeout)) return false;
  block()->sampleTime = timer().ElapsedSeconds();
  return true;
}

bool SharedTrackWriter::Enter() {
  if (block() == nullptr) return false;
  Standing& here = standing();
  if (!LockInitialised(here.held ? Milliseconds(0) : kPatience) && !NoteFailure(here)) return false;
  NoteSuccess(here);
  return true;
}

void SharedTrackWriter::Leave() {
  const int bin = currentBin();
  if (!Unlock()) AddNews(standing(), {BinNews::Kind::Overwritten, bin});
}

// True when the bin is locked after all.
bool SharedTrackWriter::NoteFailure(Standing& here) {
  const NamedMutex& mutex = *current().mutex;
  const std::int64_t now = ClockTicks();
  const std::uint32_t owner = mutex.OwnerNumber();
  const bool first = !std::exchange(here.held, true);
  if (first) here.heldSince = now;
  if (first || owner != here.owner) here.ownerSince = now;
  here.owner = owner;
  if (!first && now < here.nextSearch) return false;
  here.nextSearch = now + Ticks(kSearchInterval);
  const MutexOwner found = mutex.FindOwner();
  if (TakeFromMissingOwner(here, found.evidence, now)) return true;
  if (!here.told) here.told = AddNews(here, {BinNews::Kind::Held, currentBin(), found.process});
  return false;
}

bool SharedTrackWriter::TakeFromMissingOwner(Standing& here, MutexOwner::Evidence evidence,
                                             std::int64_t now) {
  const bool patient = now - here.ownerSince < Ticks(kMissingOwnerPatience);
  if (evidence == MutexOwner::Evidence::Found) return false;
  if (evidence == MutexOwner::Evidence::NotFound && patient) return false;
  if (!LockFrom(here.owner)) return false;
  if (std::exchange(here.initialiseDue, false)) InitializeBlock(*block(), true);
  AddNews(here, {BinNews::Kind::TakenBack, currentBin(), 0, SecondsBetween(here.heldSince, now)});
  here.held = here.told = false;
  return true;
}

void SharedTrackWriter::NoteSuccess(Standing& here) {
  const int bin = currentBin();
  if (std::exchange(here.held, false) && std::exchange(here.told, false)) {
    here.nextNews = 0;  // what was begun is ended
    AddNews(here, {BinNews::Kind::Free, bin, 0, SecondsBetween(here.heldSince, ClockTicks())});
  }
  if (current().mutex->TakeRepaired()) AddNews(here, {BinNews::Kind::Repaired, bin});
}

bool SharedTrackWriter::AddNews(Standing& here, BinNews news) {
  const std::int64_t now = ClockTicks();
  if (now < here.nextNews || news_.has_value()) return false;
  here.nextNews = now + Ticks(kNewsInterval);
  news_ = news;
  return true;
}

std::optional<BinNews> SharedTrackWriter::TakeNews() { return std::exchange(news_, std::nullopt); }

// ---- Opening and closing -----------------------------------------------------------------------

bool SharedTrackWriter::OpenBin(int number) {
  if (!OpenObjects(number)) return false;
  Bin& here = bin(number);
  const bool initialised = Initialise(number, Initialize::Always, true, kPatience);
  const std::int64_t now = ClockTicks();
  standings_[static_cast<std::size_t>(number)] = {
      .held = !initialised, .initialiseDue = !initialised, .heldSince = now, .ownerSince = now};
  rivalPresent_ = !here.memory->ClaimWriting() || rivalPresent_;
  return true;
}

bool SharedTrackWriter::CloseAll() {
  const Deadline deadline(kCloseLimit);
  for (int number = 0; number < kSharedBins; ++number) {
    if (SelectBin(number) != number || block() == nullptr) continue;
    const bool held = standing().held;
    const bool locked =
        LockInitialised(held ? Milliseconds(0) : std::min(kPatience, deadline.Remaining()));
    // One byte: a client that keeps the mutex reads the old value or the new one.
    std::atomic_ref(block()->writerPresent).store(0);
    if (locked) Unlock();
  }
  return SharedTrackMemory::CloseAll();
}

void SharedTrackWriter::CloseForSuccessor() { SharedTrackMemory::CloseAll(); }

}  // namespace kinetrel

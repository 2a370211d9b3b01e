#include "publish/shared_track_memory.h"

#include <algorithm>
#include <utility>

namespace kinetrel {
namespace {

constexpr int kToWrite = 1;

}  // namespace

void SharedTrackMemory::Bin::PrefetchToWrite() const {
  if (!IsOpen()) return;
  __builtin_prefetch(&block->flags, kToWrite);
  __builtin_prefetch(&block->publishTime, kToWrite);
  __builtin_prefetch(&block->frameRate, kToWrite);
  if (event.has_value()) event->PrefetchToSet();
}

void SharedTrackMemory::Bin::PrefetchToRead() const {
  if (!IsOpen()) return;
  __builtin_prefetch(&block->flags);
  __builtin_prefetch(&block->publishTime);
  __builtin_prefetch(&block->frameRate);
}

void SharedTrackMemory::Bin::WakeWaiters() {
  if (std::exchange(wakePending, false) && event.has_value()) event->Wake();
}

SharedTrackMemory::SharedTrackMemory(int device, int bins)
    : device_(device >= 0 && device < kSharedDevices ? device : 0),
      binMask_((1U << (bins >= 1 && bins <= kSharedBins ? bins : 1)) - 1) {}

SharedTrackMemory::~SharedTrackMemory() { SharedTrackMemory::CloseAll(); }

bool SharedTrackMemory::Lock(Milliseconds timeout) {
  if (!current().IsOpen()) return false;
  if (lockedBin_ == currentBin_) return true;
  Release();
  if (!current().mutex->Lock(timeout)) return false;
  lockedBin_ = currentBin_;
  return true;
}

bool SharedTrackMemory::LockFrom(std::uint32_t owner) {
  Release();
  if (!current().mutex->TakeFrom(owner)) return false;
  lockedBin_ = currentBin_;
  return true;
}

bool SharedTrackMemory::Unlock() {
  const bool kept = Release();
  return kept && current().IsOpen();
}

bool SharedTrackMemory::Release() {
  if (!locked()) return true;
  Bin& held = bin(std::exchange(lockedBin_, kNoBin));
  const bool kept = held.mutex->Unlock();
  // Only now: woken earlier, the clients would wait for the mutex that we still held.
  held.WakeWaiters();
  return kept;
}

bool SharedTrackMemory::OpenAll() {
  if (current().IsOpen()) return true;
  for (int number = 0; number < kSharedBins; ++number) {
    if (bin(number).IsOpen()) continue;
    CloseBin(number);
    if ((binMask_ & (1U << number)) == 0) continue;
    if (OpenBin(number)) {
      MakeEvent(number);
    } else {
      binMask_ &= ~(1U << number);
    }
  }
  // If bin 0 cannot be opened, the lowest open bin becomes current.
  for (int number = 0; number < kSharedBins && !current().IsOpen(); ++number) SelectBin(number);
  return current().IsOpen();
}

bool SharedTrackMemory::OpenObjects(int number) {
  if (!IsBin(number)) return false;
  Result<NamedMemory> memory =
      NamedMemory::Open(BlockName(device_, number), sizeof(SharedTrackBlock));
  Result<NamedMutex> mutex = NamedMutex::Open(MutexName(device_, number));
  if (!memory.Ok() || !mutex.Ok()) {
    Fail(number, memory.Ok() ? mutex.status() : memory.status());
    return false;
  }
  Bin& here = bin(number);
  here.memory = *memory;
  here.mutex = *mutex;
  here.block = static_cast<SharedTrackBlock*>(here.memory->data());
  return true;
}

bool SharedTrackMemory::Initialise(int number, Initialize initialize, bool writerPresent,
                                   Milliseconds timeout) {
  SharedTrackBlock& block = *bin(number).block;
  if (initialize == Initialize::WhenNew && IsInitialized(block)) return true;
  if (!bin(number).mutex->Lock(timeout)) return false;
  if (initialize == Initialize::Always || !IsInitialized(block)) {
    InitializeBlock(block, writerPresent);
  }
  bin(number).mutex->Unlock();
  return true;
}

void SharedTrackMemory::Fail(int number, const Status& why) {
  failure_ = why;
  CloseBin(number);
}

bool SharedTrackMemory::MakeEvent(int number) { return OpenEvent(number, Access::Anyone); }

bool SharedTrackMemory::OpenEvent(int number, Access access) {
  if (!IsBin(number)) return false;
  bin(number).event.reset();
  Result<StopEvent> event = StopEvent::Open(EventName(device_, number), access);
  if (event.Ok()) {
    bin(number).event = *event;
  } else {
    failure_ = event.status();
  }
  return event.Ok();
}

bool SharedTrackMemory::CloseBin(int number) {
  if (!IsBin(number)) return false;
  Bin& here = bin(number);
  if (number == lockedBin_) Release();
  here.block = nullptr;
  here.mutex.reset();
  here.memory.reset();
  return false;
}

bool SharedTrackMemory::CloseAll() {
  Release();
  for (int number = 0; number < kSharedBins; ++number) {
    CloseBin(number);
    bin(number).event.reset();
  }
  return false;
}

bool SharedTrackMemory::Publish(int frame) {
  Bin& here = current();
  if (!here.IsOpen()) return false;
  SharedTrackBlock* const data = here.block;
  // Unsigned: after 2^31 frames (103 days at 240 Hz) the count wraps round.
  data->frameCount =
      frame != 0 ? frame
                 : static_cast<std::int32_t>(static_cast<std::uint32_t>(data->frameCount) + 1);
  data->publishTime = timer_.ElapsedSeconds();
  if (here.event.has_value() && here.event->Mark()) {
    here.wakePending = true;
    if (lockedBin_ != currentBin_) here.WakeWaiters();
  }
  return true;
}

bool SharedTrackMemory::WaitForFrame(int lastFrame, Milliseconds timeout) {
  Bin& here = current();
  if (!here.event.has_value() || !Lock(timeout)) return false;
  if (here.block->frameCount == lastFrame && !AwaitFrame(lastFrame, timeout)) return false;
  const int newest = here.block->frameCount;
  Unlock();
  return newest > lastFrame;
}

// Call it locked. Locked again when it returns true.
bool SharedTrackMemory::AwaitFrame(int lastFrame, Milliseconds timeout) {
  const StopEvent& event = *current().event;
  const Deadline deadline(timeout);
  bool set = false;
  while (!set && current().block->frameCount == lastFrame) {
    // No publication is lost: the event is reset under the mutex, with the newest frame known.
    const StopEvent::Ticket ticket = current().event->Reset();
    Unlock();
    set = event.WaitSince(ticket, std::min(deadline.Remaining(), event.LongestBlindWait()));
    // What the writer has just written arrives while we lock the mutex.
    current().PrefetchToRead();
    if ((!set && deadline.Passed()) || !Lock(timeout)) return false;
  }
  return true;
}

}  // namespace kinetrel

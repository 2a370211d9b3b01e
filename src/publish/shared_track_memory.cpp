#include "publish/shared_track_memory.h"

#include <algorithm>
#include <utility>

namespace kinetrel {
namespace {

constexpr int kToWrite = 1;

bool IsBin(int bin) { return bin >= 0 && bin < kSharedBins; }

}  // namespace

SharedTrackBlock* SharedTrackMemory::Bin::Block() const {
  return Open() ? static_cast<SharedTrackBlock*>(memory->data()) : nullptr;
}

void SharedTrackMemory::Bin::PrefetchToWrite() const {
  if (const SharedTrackBlock* const data = Block()) {
    __builtin_prefetch(&data->flags, kToWrite);
    __builtin_prefetch(&data->publishTime, kToWrite);
    __builtin_prefetch(&data->frameRate, kToWrite);
  }
  if (event.has_value()) event->PrefetchToSet();
}

void SharedTrackMemory::Bin::PrefetchToRead() const {
  if (const SharedTrackBlock* const data = Block()) {
    __builtin_prefetch(&data->flags);
    __builtin_prefetch(&data->publishTime);
    __builtin_prefetch(&data->frameRate);
  }
}

void SharedTrackMemory::Bin::WakeWaiters() {
  if (std::exchange(wakePending, false) && event.has_value()) event->Wake();
}

SharedTrackMemory::SharedTrackMemory(int device, int bins)
    : device_(device >= 0 && device < kSharedDevices ? device : 0),
      binMask_((1U << (bins >= 1 && bins <= kSharedBins ? bins : 1)) - 1) {}

SharedTrackMemory::~SharedTrackMemory() { SharedTrackMemory::CloseAll(); }

SharedTrackBlock* SharedTrackMemory::block() { return current().Block(); }

const SharedTrackBlock* SharedTrackMemory::block() const {
  return bins_[static_cast<std::size_t>(currentBin_)].Block();
}

int SharedTrackMemory::SelectBin(int number) {
  if (IsBin(number) && bin(number).Open()) currentBin_ = number;
  return currentBin_;
}

bool SharedTrackMemory::Lock(Milliseconds timeout) {
  if (!current().Open()) return false;
  if (lockedBin_ == currentBin_) return true;
  Release();
  if (!current().mutex->Lock(timeout)) return false;
  lockedBin_ = currentBin_;
  return true;
}

bool SharedTrackMemory::Unlock() {
  Release();
  return current().Open();
}

void SharedTrackMemory::Release() {
  if (!locked()) return;
  Bin& held = bin(std::exchange(lockedBin_, kNoBin));
  held.mutex->Unlock();
  // Woken while we still held the mutex, the waiters would only have run into it.
  held.WakeWaiters();
}

bool SharedTrackMemory::OpenAll() {
  if (current().Open()) return true;
  for (int number = 0; number < kSharedBins; ++number) {
    if (bin(number).Open()) continue;
    CloseBin(number);
    if ((binMask_ & (1U << number)) == 0) continue;
    if (OpenBin(number)) {
      MakeEvent(number);
    } else {
      binMask_ &= ~(1U << number);
    }
  }
  // Where the lowest bin is not to be had, nobody must take it for the current one.
  for (int number = 0; number < kSharedBins && !current().Open(); ++number) SelectBin(number);
  return current().Open();
}

bool SharedTrackMemory::OpenObjects(int number, Initialize initialize, bool writerPresent) {
  if (!IsBin(number)) return false;
  Bin& here = bin(number);
  Result<NamedMemory> memory =
      NamedMemory::Open(BlockName(device_, number), sizeof(SharedTrackBlock));
  if (!memory.Ok()) return Fail(number, memory.status());
  Result<NamedMutex> mutex = NamedMutex::Open(MutexName(device_, number));
  if (!mutex.Ok()) return Fail(number, mutex.status());

  here.memory = *memory;
  here.mutex = *mutex;
  if (initialize == Initialize::WhenNew && IsInitialized(*here.Block())) return true;
  if (!here.mutex->Lock(kForever)) {
    return Fail(number, {Error::Invalid, 0, "locking the mutex of shared memory"});
  }
  if (initialize == Initialize::Always || !IsInitialized(*here.Block())) {
    InitializeBlock(*here.Block(), writerPresent);
  }
  here.mutex->Unlock();
  return true;
}

bool SharedTrackMemory::Fail(int number, const Status& why) {
  failure_ = why;
  return CloseBin(number);
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
  SharedTrackBlock* const data = here.Block();
  if (data == nullptr) return false;
  // Unsigned: after 2^31 frames (103 days at 240 Hz) the count goes round instead of overflowing.
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
  if (here.Block()->frameCount == lastFrame && !AwaitFrame(lastFrame, timeout)) return false;
  const int newest = here.Block()->frameCount;
  Unlock();
  return newest > lastFrame;
}

// Called locked, and locked again when it answers true.
bool SharedTrackMemory::AwaitFrame(int lastFrame, Milliseconds timeout) {
  const StopEvent& event = *current().event;
  const Deadline deadline(timeout);
  bool set = false;
  while (!set && current().Block()->frameCount == lastFrame) {
    // Reset under the mutex and only with the newest frame in hand: no publication is lost.
    const StopEvent::Ticket ticket = current().event->Reset();
    Unlock();
    set = event.WaitSince(ticket, std::min(deadline.Remaining(), event.LongestBlindWait()));
    // Asked for now, what the writer has just written arrives while the mutex does.
    current().PrefetchToRead();
    if ((!set && deadline.Passed()) || !Lock(timeout)) return false;
  }
  return true;
}

}  // namespace kinetrel

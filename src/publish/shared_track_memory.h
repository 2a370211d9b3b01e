// The 16 shared-memory bins of one device number: what a writer and a reader have in common.
//
// Operations without a bin argument act on the current bin, chosen with SelectBin.
//
// Threads  one at a time. The bin's mutex keeps other processes out: hold it (Lock) around every
//          write, and around a read of several fields that belong together.
// Memory   nothing is allocated after OpenAll.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "publish/shared_track_block.h"
#include "publish/stop_event.h"
#include "publish/track_timer.h"

namespace kinetrel {

class SharedTrackMemory {
 public:
  // device  0..15; another value becomes 0.
  // bins    how many of the lowest bins OpenAll opens, 1..16; another value becomes 1.
  SharedTrackMemory(int device, int bins);
  virtual ~SharedTrackMemory();
  SharedTrackMemory(const SharedTrackMemory&) = delete;
  SharedTrackMemory& operator=(const SharedTrackMemory&) = delete;

  // Takes the bin's mutex. Another bin's that is still held is given back first. True at once if
  // this one is held already. False: no bin open, or not free in time.
  virtual bool Lock(Milliseconds timeout);

  // Gives back the mutex that is held, then wakes the clients that wait for the new frame. True at
  // once if none is held. False: the current bin is not open, or another program has overwritten
  // the mutex meanwhile.
  virtual bool Unlock();

  virtual bool OpenBin(int bin) = 0;
  virtual bool CloseAll();  // false: no bin is open any more

  // Opens or makes the bin's event, for any account. Replaces an event already open.
  virtual bool MakeEvent(int bin);

  // Makes the bin the current one if it is open. Returns the current bin.
  int SelectBin(int number) {
    if (IsBin(number) && bin(number).IsOpen()) currentBin_ = number;
    return currentBin_;
  }

  // Opens every bin of the mask that is not open. A bin that cannot be opened leaves the mask. If
  // the current bin is not open then, the lowest open bin becomes current. True: at least one bin
  // is open. If the current bin was open before, nothing is done.
  bool OpenAll();
  bool CloseBin(int bin);  // false: the bin is not open any more

  // Counts the frame, stamps its publishTime and sets the bin's event. Call it locked. False: no
  // bin open.
  // frame  the new frame count; 0: one more than the last.
  bool Publish(int frame);

  // Waits until the bin holds a newer frame than `lastFrame`. False: the bin holds an older one (a
  // new writer has started), it cannot be locked, or the time is up.
  bool WaitForFrame(int lastFrame, Milliseconds timeout);

  // The current bin's block; null: not open. Other processes share it: see Threads.
  SharedTrackBlock* block() { return current().block; }
  const SharedTrackBlock* block() const {
    return bins_[static_cast<std::size_t>(currentBin_)].block;
  }

  int device() const { return device_; }
  int currentBin() const { return currentBin_; }
  bool locked() const { return lockedBin_ != kNoBin; }
  TrackTimer& timer() { return timer_; }

  // Why a bin or an event failed to open, of the last that failed.
  const Status& failure() const { return failure_; }

 protected:
  struct Bin {
    std::optional<NamedMemory> memory;
    std::optional<NamedMutex> mutex;
    std::optional<StopEvent> event;
    SharedTrackBlock* block = nullptr;  // in `memory`, once the mutex is there too
    bool wakePending = false;

    bool IsOpen() const { return block != nullptr; }
    // Of the cache lines that every publication writes. Another CPU had them last.
    void PrefetchToWrite() const;
    void PrefetchToRead() const;
    void WakeWaiters();
  };

  enum class Initialize { Always, WhenNew };

  bool OpenObjects(int bin);               // the block and the mutex
  bool OpenEvent(int bin, Access access);  // as MakeEvent

  // Initialises an open bin's block under its mutex. WhenNew: unless a process has done so; the
  // block itself tells, since a writer may have opened what a reader has just made. False: not
  // locked within `timeout`.
  bool Initialise(int bin, Initialize initialize, bool writerPresent, Milliseconds timeout);

  // Locks the current bin although its mutex names `owner`; see NamedMutex::TakeFrom.
  bool LockFrom(std::uint32_t owner);

  void Fail(int bin, const Status& why);  // closes the bin

  Bin& bin(int number) { return bins_[static_cast<std::size_t>(number)]; }
  Bin& current() { return bin(currentBin_); }

 private:
  static constexpr int kNoBin = -1;

  static bool IsBin(int number) { return number >= 0 && number < kSharedBins; }

  bool AwaitFrame(int lastFrame, Milliseconds timeout);
  bool Release();  // false: the mutex was not ours any more

  int device_;
  int currentBin_ = 0;
  int lockedBin_ = kNoBin;  // whose mutex is held
  std::uint32_t binMask_;
  std::array<Bin, kSharedBins> bins_;
  TrackTimer timer_;
  Status failure_;
};

}  // namespace kinetrel

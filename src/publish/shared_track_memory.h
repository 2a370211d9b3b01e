// The 16 shared-memory bins of one device number, as a writer and a reader have them in common.
//
// All operations but those that take a bin act on the current one, chosen with SelectBin.
//
// Threads  one at a time. Other processes are kept out by the bin's mutex: hold it (Lock) around
//          every write and every read that must be of one piece.
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

  // Takes the bin's mutex, and first gives back another bin's that is still held. True at once
  // when held already. False: no bin open, not free in time, or no usable mutex any more.
  virtual bool Lock(Milliseconds timeout);

  // Gives back the mutex that is held, then wakes who waits for what was published under it. True
  // at once when none is; false when the current bin is not open.
  virtual bool Unlock();

  virtual bool OpenBin(int bin) = 0;
  virtual bool CloseAll();  // always false
  // Opens or makes the bin's event, for any account; replaces an event already held.
  virtual bool MakeEvent(int bin);

  // The current bin after the call: `bin` where it is open, else the one before.
  int SelectBin(int bin);

  // Opens every bin of the mask that is not open; a bin that cannot be is dropped from the mask.
  // True when at least one opened, or the current one already was; the lowest that is open becomes
  // the current one where that is not.
  bool OpenAll();
  bool CloseBin(int bin);  // always false

  // Counts and dates a sample and sets the bin's event; call it locked. False: no bin open.
  // frame  the new frame count; 0: one more than the last.
  bool Publish(int frame);

  // Waits until the bin holds a newer frame than `lastFrame`. False at once when it holds an older
  // one (the writer has started afresh) or cannot be locked; false when the time is up.
  bool WaitForFrame(int lastFrame, Milliseconds timeout);

  // The current bin's block, null when it is not open. Shared with other processes: see Threads.
  SharedTrackBlock* block();
  const SharedTrackBlock* block() const;

  int device() const { return device_; }
  int currentBin() const { return currentBin_; }
  bool locked() const { return lockedBin_ != kNoBin; }
  TrackTimer& timer() { return timer_; }

  // Why the last bin or event that failed to open did; done while none has.
  const Status& failure() const { return failure_; }

 protected:
  struct Bin {
    std::optional<NamedMemory> memory;
    std::optional<NamedMutex> mutex;
    std::optional<StopEvent> event;
    bool wakePending = false;

    bool Open() const { return memory.has_value() && mutex.has_value(); }
    SharedTrackBlock* Block() const;
    // The cache lines that every publication writes: they are on the CPU of whoever had them last.
    void PrefetchToWrite() const;
    void PrefetchToRead() const;
    void WakeWaiters();
  };

  enum class Initialize { Always, WhenNew };

  // Opens block and mutex, and initialises the block under the mutex: always, or when nobody has
  // yet. Whether somebody has is asked of the block itself, for a writer may have come between
  // the creation by a reader and this.
  bool OpenObjects(int bin, Initialize initialize, bool writerPresent);

  bool OpenEvent(int bin, Access access);  // as MakeEvent

  Bin& bin(int number) { return bins_[static_cast<std::size_t>(number)]; }
  Bin& current() { return bin(currentBin_); }

 private:
  static constexpr int kNoBin = -1;

  bool Fail(int bin, const Status& why);  // closes the bin; always false
  bool AwaitFrame(int lastFrame, Milliseconds timeout);
  void Release();

  int device_;
  int currentBin_ = 0;
  int lockedBin_ = kNoBin;  // whose mutex is held
  std::uint32_t binMask_;
  std::array<Bin, kSharedBins> bins_;
  TrackTimer timer_;
  Status failure_;
};

}  // namespace kinetrel

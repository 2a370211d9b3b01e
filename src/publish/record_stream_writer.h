// The writer of a slot's record stream: include/kinetrel/stream.h is its layout and its reader.
//
// Records go into the stream without a lock and without waiting for any client. A thread of the
// writer's own sets the heartbeat, the clocks and the statistics every second, also while the
// sampling thread waits for a device that is silent or hangs.
//
// Threads  each operation names its own.
// Memory   nothing is allocated after Open.
#pragma once

#include <kinetrel/stream.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <span>
#include <string>
#include <thread>

#include "platform/mutex.h"
#include "platform/stream_memory.h"
#include "publish/stop_event.h"

namespace kinetrel {

std::string StreamName(int device);  // device number 0..15

// A reading of ClockTicks() as the stream's time.
std::int64_t StreamNanoseconds(std::int64_t ticks);

class RecordStreamWriter {
 public:
  // Makes the stream of a device number (0..15), new for every writer, in the state "starting".
  // Denied, NoSpace, Busy, Invalid: see StreamMemory::Create.
  static Result<std::unique_ptr<RecordStreamWriter>> Open(int device);

  ~RecordStreamWriter();  // leaves the state "stopped", unless it is "failed"
  RecordStreamWriter(const RecordStreamWriter&) = delete;
  RecordStreamWriter& operator=(const RecordStreamWriter&) = delete;

  // ---- Sampling thread -----------------------------------------------------------------------

  // Publishes records that came together: one arrival, one wake-up. Sets their number and time of
  // publication; the caller sets the rest. One of a sensor past 31 is left out.
  //
  // own  the device's own poses, one for each record; read where the record is filtered. Their
  //      numbers are set too. May be null if none is.
  void Publish(std::span<kinetrel_record> records, kinetrel_device_pose* own = nullptr);

  // Counts a frame whose records are published, and keeps rate and jitter. sampleNs  of the frame.
  void NoteFrame(std::int64_t sampleNs);
  void NoteFailedRead() { Add(failedReads_, 1); }
  void NoteDropped(std::uint64_t records) { Add(dropped_, records); }
  void NoteRecovery() { Add(recoveries_, 1); }
  void SetBytes(std::uint64_t in, std::uint64_t out);
  // What the filters of a sensor (from 0, below 32) add, in seconds.
  void SetFilterLag(int sensor, double seconds);

  // ---- Any thread ----------------------------------------------------------------------------

  // Publishes a state that differs from the one before, and wakes the readers.
  // sentence  what the user can do about it; at most 255 bytes are kept.
  void SetState(kinetrel_state state, const char* sentence) EXCLUDES(lock_);

  // Describes the device: `change` sets the fields of the run that are not the writer's own.
  template <typename Change>
  void ChangeRun(Change change) EXCLUDES(lock_) {
    const Lock held(lock_);
    change(run_);
    WriteRun();
  }

  // One thread at a time: the caller holds the log's lock.
  void AddLogLine(std::time_t when, int code, const char* text);

 private:
  using Count = std::atomic<std::uint64_t>;
  // A count that the sampling thread alone writes.
  static void Add(Count& count, std::uint64_t more) {
    count.store(count.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
  }

  RecordStreamWriter(StreamMemory memory, int device);
  void LayOut(int device);
  void WriteRun() REQUIRES(lock_);
  void TakeStatistics() REQUIRES(lock_);
  void Beat() EXCLUDES(lock_);
  void BeatEverySecond();

  StreamMemory memory_;
  kinetrel_stream_live* live_;
  unsigned char* runEntry_;
  unsigned char* sensorEntries_;
  unsigned char* logEntries_;
  unsigned char* ring_;
  unsigned char* ownPoses_;

  // Sampling thread only.
  std::uint64_t newest_ = 0;
  std::int64_t lastFrame_ = 0;  // ns; 0: none yet
  double interval_ = 0.0;       // s between frames, mean of about the last second
  double spread_ = 0.0;         // s^2, its variance
  double latency_ = 0.0;        // s, mean
  double worstLatency_ = 0.0;

  // Written by the sampling thread, read by the heartbeat.
  Count frames_ = 0;
  Count failedReads_ = 0;
  Count dropped_ = 0;
  Count recoveries_ = 0;
  Count bytesIn_ = 0;
  Count bytesOut_ = 0;
  std::atomic<double> measuredRate_ = 0.0;
  std::atomic<double> jitter_ = 0.0;
  std::atomic<double> latencyMean_ = 0.0;
  std::atomic<double> latencyMax_ = 0.0;
  std::array<std::atomic<std::uint16_t>, kinetrel_stream_sensors> filterLag_{};  // 10 us

  std::uint64_t logNewest_ = 0;  // under the log's own lock

  PriorityMutex lock_;
  kinetrel_run run_ GUARDED_BY(lock_){};

  StopEvent stop_;
  std::thread heartbeat_;
};

}  // namespace kinetrel

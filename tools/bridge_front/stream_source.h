// One tracker as a bridge reads it: the new records of a slot, and what is known of their tracker.
//
// It waits for a tracker that is not there yet and goes on with the next one when a writer is
// replaced. A record is returned once, and only if it came after the source was made. A reader that
// was held up (stopped by a signal, a busy machine) skips what it missed and goes on with the
// newest record of each sensor, so that no queue of old poses leaves the machine. If the tracker
// was lost meanwhile, it returns no record.
#pragma once

#include <kinetrel/stream.h>

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kinetrel::bridge {

struct SourceState {
  int slot = 1;
  bool present = false;  // a stream is open
  kinetrel_state state = kinetrel_state_unknown;
  std::string sentence;       // why, as a sentence for the operator
  kinetrel_run run{};         // zeros until present; its clock pair and names are at most 1 s old
  std::uint64_t skipped = 0;  // records that came too fast, or while this process was held up

  bool Delivers() const { return present && state == kinetrel_state_running; }
};

// The time of the stream's clock as UTC. A target with a clock of its own converts from
// kinetrel_now_ns() instead.
inline std::int64_t UtcNs(const SourceState& state, std::int64_t timeNs) {
  return kinetrel_run_utc_ns(&state.run, timeNs);
}

class StreamSource {
 public:
  explicit StreamSource(int slot);  // 1 to 16
  ~StreamSource();
  StreamSource(const StreamSource&) = delete;
  StreamSource& operator=(const StreamSource&) = delete;

  struct News {
    std::span<const kinetrel_record> records;  // oldest first; valid until the next call
    // state().state, present or sentence; or the run has other sensors or another device
    bool stateChanged = false;
  };

  // Waits until there is a record or a change of state, at most `patienceMs`.
  // Threads  one at a time.
  News Next(int patienceMs);

  const SourceState& state() const { return state_; }

  // The device's own pose of a record of the last News. False: it was overwritten meanwhile.
  bool DevicePose(const kinetrel_record& record, kinetrel_device_pose& pose) {
    return open_ && kinetrel_stream_device_pose(&stream_, &record, &pose) == kinetrel_stream_ok;
  }

 private:
  bool OpenStream();
  void BeginWriter();
  // Takes what waits. False: `first` had waited for too long, so only the newest were taken.
  bool Collect(const kinetrel_record& first);
  void TakeNewest(const kinetrel_record& first);
  void Keep(const kinetrel_record& record);
  void RefreshRun();
  bool LookAtState();

  SourceState state_;
  kinetrel_stream stream_{};
  bool open_ = false;
  std::vector<kinetrel_record> records_;
  std::array<std::uint64_t, kinetrel_stream_sensors> taken_{};  // newest number of each sensor
  std::int64_t nextLookNs_ = 0;
  std::int64_t nextRefreshNs_ = 0;
  bool runChanged_ = false;   // not told yet
  int unfinished_ = 0;        // openings in a row that found no stream in what is there
  std::uint64_t jumped_ = 0;  // records that TakeNewest left out
};

}  // namespace kinetrel::bridge

// What is known of the tracker of one slot at one moment, and the reading of it.
#pragma once

#include <kinetrel/stream.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kinetrel::view {

// One moment by both clocks.
struct Moment {
  std::int64_t nowNs = 0;  // of kinetrel_now_ns()
  std::int64_t utcNs = 0;  // since 1970
};
Moment MomentNow();

struct TrackerSnapshot {
  int slot = 1;
  kinetrel_stream_result result = kinetrel_stream_none;  // the rest counts only if it is ok
  kinetrel_state state = kinetrel_state_unknown;
  std::string sentence;  // the state's
  kinetrel_run run{};
  std::array<std::optional<kinetrel_record>, kinetrel_stream_sensors> newest;
  std::vector<kinetrel_log_line> log;  // oldest first

  std::uint64_t NewestFrame() const;  // 0: no record yet
};

// An open stream, and the parts of a snapshot that it can fill.
class TrackerStream {
 public:
  // Does not wait for a tracker; result() tells how it went.
  explicit TrackerStream(int slot);
  ~TrackerStream();
  TrackerStream(const TrackerStream&) = delete;
  TrackerStream& operator=(const TrackerStream&) = delete;

  kinetrel_stream_result result() const { return result_; }
  kinetrel_stream* get() { return &stream_; }

  // With state and sentence. Unless the tracker runs, the rate is 0, and jitter and mean latency
  // are not numbers.
  void ReadRun(TrackerSnapshot& into);
  void ReadLog(TrackerSnapshot& into);

  // The newest record of every sensor. Returns whether there is one.
  bool ReadRecords(TrackerSnapshot& into);

  // Waits for records that came since the last call, and takes all of them: whole arrivals, which
  // the table of newest records may show half written. Returns what kinetrel_stream_next does.
  kinetrel_stream_result TakeRecords(TrackerSnapshot& into, int timeoutMs);

  // Seconds from sample to publication of the records that the ring still holds, at most of the
  // last minute, in ascending order.
  std::vector<double> ReadLatencies();

 private:
  kinetrel_stream stream_;
  kinetrel_stream_result result_;
};

// All of a slot's snapshot. Never waits.
TrackerSnapshot ReadTracker(int slot);

}  // namespace kinetrel::view

// Reads the stream of a slot for a measurement: every record as soon as it comes, the state and the
// run, also of the writers that follow the first.
#pragma once

#include <kinetrel/stream.h>

#include <cstdint>
#include <string>

#include "certify/measurement.h"

namespace kinetrel::certify {

class TrackerReader {
 public:
  TrackerReader(int slot, Measurement& measurement) : slot_(slot), measurement_(measurement) {}
  ~TrackerReader();
  TrackerReader(const TrackerReader&) = delete;
  TrackerReader& operator=(const TrackerReader&) = delete;

  // Waits for the next record, at most `patienceMs`, and takes all that there are.
  // Threads  one at a time.
  void Read(int patienceMs);

  // The newest run and state, for the end of a measurement.
  void ReadRun();

  // The state in words; why no tracker is read.
  const std::string& sentence() const { return sentence_; }
  bool delivers() const { return state_ == kinetrel_state_running; }

  // What the status log says of the sampling thread's priority.
  enum class Priority { Unknown, RealTime, Ordinary };
  Priority priority() const { return priority_; }

 private:
  bool Open();
  void Begin(const kinetrel_run& run);
  void Close();
  void LookAtState();
  void LookAtLog();
  void Say(std::int64_t nowNs, kinetrel_state state, const std::string& sentence);

  int slot_;
  Measurement& measurement_;
  kinetrel_stream stream_{};
  bool open_ = false;
  std::int64_t foundNs_ = 0;  // when the writer was found: what it published before has waited
  std::uint64_t lost_ = 0;    // of streams that were closed
  std::int64_t nextLookNs_ = 0;
  int vainOpenings_ = 0;  // in a row
  int unfinished_ = 0;    // of these, that found no stream in what is there
  kinetrel_state state_ = kinetrel_state_unknown;
  std::string sentence_ = "no tracker publishes on this slot";
  Priority priority_ = Priority::Unknown;
};

}  // namespace kinetrel::certify

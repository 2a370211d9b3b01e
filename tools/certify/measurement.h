// What is measured of a tracker, from what a reader sees of its stream. Pure: no clock, no stream.
#pragma once

#include <kinetrel/stream.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "certify/frame_pace.h"
#include "certify/sensor_noise.h"
#include "certify/time_histogram.h"
#include "certify/time_line.h"

namespace kinetrel::certify {

// Counts of the tracker's program, of the time that was watched.
struct TrackerCounts {
  std::uint64_t failedReads = 0;
  std::uint64_t dropped = 0;  // records that the device sent and that could not be used
  std::uint64_t recoveries = 0;
};

// Something to tell of the run.
struct Event {
  double seconds = 0;  // since the first pose; below 0: before it
  std::string text;
};

class Measurement {
 public:
  static constexpr std::size_t kMostEvents = 100;

  // A writer was found, and its run. The records that follow are its own.
  // another  a writer came before it. Its counts then began with it.
  void BeginWriter(const kinetrel_run& run, bool another, std::int64_t nowNs);
  // The same writer's run, later.
  void TakeRun(const kinetrel_run& run);

  // readNs   when the client had the record.
  // awaited  the client waited for it: its age counts.
  void TakeRecord(const kinetrel_record& record, std::int64_t readNs, bool awaited);
  void TakeEvent(std::int64_t nowNs, const std::string& text);
  void SetLostHere(std::uint64_t records) { lostHere_ = records; }
  void Finish() { pace_.Finish(); }

  // Times of the first and the newest pose at the client, ns; 0: none yet.
  std::int64_t beganNs() const { return beganNs_; }
  double watchedSeconds(std::int64_t nowNs) const;
  double lastPoseSeconds() const { return lastSeconds_; }  // at the client, since the first

  bool hasRun() const { return hasRun_; }
  const kinetrel_run& run() const { return run_; }  // of the newest writer
  std::uint64_t writers() const { return writers_; }
  std::uint64_t records() const { return records_; }
  const FramePace& pace() const { return pace_; }
  const TimeHistogram& age() const { return age_; }  // sample to client
  const TimeHistogram& toPublication() const { return toPublication_; }
  const TimeHistogram& toClient() const { return toClient_; }  // from publication
  const std::map<unsigned, SensorNoise>& sensors() const { return sensors_; }
  const TimeLine& timeLine() const { return timeLine_; }
  const TrackerCounts& counts() const { return counts_; }
  std::uint64_t lostHere() const { return lostHere_; }  // records
  const std::vector<Event>& events() const { return events_; }
  std::uint64_t eventsLeftOut() const { return eventsLeftOut_; }

 private:
  void SetRun(const kinetrel_run& run);
  void AddEvent(double seconds, const std::string& text);

  bool hasRun_ = false;
  kinetrel_run run_{};
  std::uint64_t writers_ = 0;
  std::uint64_t records_ = 0;
  std::int64_t beganNs_ = 0;
  double lastSeconds_ = -1;  // of the newest record, since the first
  std::uint64_t frame_ = 0;  // of the newest record
  FramePace pace_;
  TimeHistogram age_;
  TimeHistogram toPublication_;
  TimeHistogram toClient_;
  std::map<unsigned, SensorNoise> sensors_;
  TimeLine timeLine_;
  TrackerCounts counts_;
  std::uint64_t lostHere_ = 0;
  std::vector<Event> events_;
  std::uint64_t eventsLeftOut_ = 0;
};

}  // namespace kinetrel::certify

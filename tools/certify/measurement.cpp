#include "certify/measurement.h"

#include <algorithm>
#include <cstdio>

namespace kinetrel::certify {
namespace {

// Times of a damaged stream may be any numbers.
std::int64_t Between(std::int64_t from, std::int64_t to) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(to) -
                                   static_cast<std::uint64_t>(from));
}

// A count that went back is another writer's, or damaged: it counts from 0.
std::uint64_t Advance(std::uint64_t from, std::uint64_t to) { return to >= from ? to - from : to; }

}  // namespace

void Measurement::BeginWriter(const kinetrel_run& run, bool another, std::int64_t nowNs) {
  frame_ = 0;
  if (records_ == 0) {  // the first one, or what an ended program left behind
    hasRun_ = true;
    writers_ = 1;
    return SetRun(run);
  }
  ++writers_;
  TakeEvent(nowNs, "Another program has the slot now, or the same one was started again: " +
                       std::string(run.device_name));
  pace_.Interrupt();
  if (another) run_.failed_reads = run_.dropped = run_.recoveries = 0;
  TakeRun(run);
}

void Measurement::TakeRun(const kinetrel_run& run) {
  counts_.failedReads += Advance(run_.failed_reads, run.failed_reads);
  counts_.dropped += Advance(run_.dropped, run.dropped);
  counts_.recoveries += Advance(run_.recoveries, run.recoveries);
  SetRun(run);
}

// The rate may be known only after the writer has begun, and a user may change it.
void Measurement::SetRun(const kinetrel_run& run) {
  run_ = run;
  const double nominal = std::isfinite(run.nominal_rate) ? run.nominal_rate : 0;
  if (nominal <= 0 || nominal == pace_.nominal()) return;
  if (pace_.nominal() > 0 && pace_.frames() > 0) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "The nominal rate changed from %g to %g Hz: the figures of rate, jitter, gaps "
                  "and clock are of the time after that.",
                  pace_.nominal(), nominal);
    AddEvent(lastSeconds_, text);
    pace_ = FramePace(nominal);
  }
  pace_.SetNominal(nominal);
}

void Measurement::TakeRecord(const kinetrel_record& record, std::int64_t readNs, bool awaited) {
  if (record.sensor >= kinetrel_stream_sensors) return;
  if (records_ == 0) beganNs_ = readNs;
  ++records_;
  const double seconds = static_cast<double>(Between(beganNs_, readNs)) * 1e-9;
  lastSeconds_ = seconds;
  Piece& piece = timeLine_.At(seconds);
  if (record.frame != frame_) {
    frame_ = record.frame;
    pace_.Add(record.sample_ns);
    ++piece.frames;
  }
  sensors_[record.sensor].Add(record);
  toPublication_.Add(Between(record.sample_ns, record.publish_ns));
  if (!awaited) return;
  const std::int64_t age = Between(record.sample_ns, readNs);
  age_.Add(age);
  toClient_.Add(Between(record.publish_ns, readNs));
  piece.worstAge = std::max(piece.worstAge, static_cast<double>(age) * 1e-9);
}

void Measurement::TakeEvent(std::int64_t nowNs, const std::string& text) {
  AddEvent(beganNs_ == 0 ? -1 : watchedSeconds(nowNs), text);
}

void Measurement::AddEvent(double seconds, const std::string& text) {
  if (events_.size() < kMostEvents) {
    events_.push_back({seconds, text});
  } else {
    ++eventsLeftOut_;
  }
}

double Measurement::watchedSeconds(std::int64_t nowNs) const {
  return beganNs_ == 0 ? 0 : static_cast<double>(Between(beganNs_, nowNs)) * 1e-9;
}

}  // namespace kinetrel::certify

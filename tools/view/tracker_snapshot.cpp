#include "view/tracker_snapshot.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace kinetrel::view {
namespace {

constexpr std::int64_t kMinute = 60'000'000'000;  // ns

}  // namespace

std::uint64_t TrackerSnapshot::NewestFrame() const {
  std::uint64_t frame = 0;
  for (const auto& record : newest) {
    if (record) frame = std::max(frame, record->frame);
  }
  return frame;
}

Moment MomentNow() {
  const auto utc = std::chrono::system_clock::now().time_since_epoch();
  return {kinetrel_now_ns(), std::chrono::nanoseconds(utc).count()};
}

TrackerStream::TrackerStream(int slot) : result_(kinetrel_stream_open(&stream_, slot, 0)) {}

TrackerStream::~TrackerStream() { kinetrel_stream_close(&stream_); }

void TrackerStream::ReadRun(TrackerSnapshot& into) {
  std::array<char, 256> sentence{};
  kinetrel_run run;
  if (kinetrel_stream_run(&stream_, &run) == kinetrel_stream_ok) into.run = run;
  into.state = kinetrel_stream_state(&stream_, sentence.data());
  into.sentence = sentence.data();
  into.result = kinetrel_stream_ok;
  if (into.state == kinetrel_state_running) return;
  // The writer measures with each frame, so without frames its last figures stay in the stream.
  into.run.measured_rate = 0;
  into.run.jitter = into.run.latency_mean = std::numeric_limits<double>::quiet_NaN();
}

void TrackerStream::ReadLog(TrackerSnapshot& into) {
  into.log.resize(kinetrel_stream_log_lines);
  const int count = kinetrel_stream_log(&stream_, into.log.data(), kinetrel_stream_log_lines);
  into.log.resize(static_cast<std::size_t>(count));
}

bool TrackerStream::ReadRecords(TrackerSnapshot& into) {
  bool any = false;
  for (unsigned i = 0; i < kinetrel_stream_sensors; ++i) {
    kinetrel_record record;
    if (kinetrel_stream_newest(&stream_, i, &record) != kinetrel_stream_ok) continue;
    record.sensor = i;  // whatever the entry says
    into.newest[i] = record;
    any = true;
  }
  return any;
}

kinetrel_stream_result TrackerStream::TakeRecords(TrackerSnapshot& into, int timeoutMs) {
  kinetrel_record record;
  kinetrel_stream_result result = kinetrel_stream_next(&stream_, &record, timeoutMs);
  // As many as the ring holds: a writer that is faster than we are must not keep us here.
  for (int i = 0; result == kinetrel_stream_ok; ++i) {
    if (record.sensor < into.newest.size()) into.newest[record.sensor] = record;
    if (i == kinetrel_stream_records) break;
    result = kinetrel_stream_next(&stream_, &record, 0);
    if (result == kinetrel_stream_timed_out) return kinetrel_stream_ok;
  }
  return result;
}

std::vector<double> TrackerStream::ReadLatencies() {
  std::vector<double> seconds;
  kinetrel_record record;
  const std::int64_t oldest = kinetrel_now_ns() - kMinute;
  kinetrel_stream_rewind(&stream_);
  for (int i = 0; i < kinetrel_stream_records; ++i) {
    if (kinetrel_stream_next(&stream_, &record, 0) != kinetrel_stream_ok) break;
    if (record.publish_ns < oldest) continue;
    const auto latency =
        static_cast<double>(record.publish_ns) - static_cast<double>(record.sample_ns);
    seconds.push_back(std::max(latency, 0.0) * 1e-9);
  }
  std::ranges::sort(seconds);
  return seconds;
}

TrackerSnapshot ReadTracker(int slot) {
  TrackerSnapshot snapshot;
  snapshot.slot = slot;
  TrackerStream stream(slot);
  snapshot.result = stream.result();
  if (stream.result() != kinetrel_stream_ok) return snapshot;
  stream.ReadRun(snapshot);
  stream.ReadRecords(snapshot);
  stream.ReadLog(snapshot);
  return snapshot;
}

}  // namespace kinetrel::view

#include "bridge_front/stream_source.h"

#include <algorithm>
#include <cstring>

#include "platform/clock.h"

namespace kinetrel::bridge {
namespace {

constexpr std::int64_t kMillisecondNs = 1000000;

// A record that waited longer than this for its reader is too old to be sent when a newer one of
// the sensor is there. Far above a scheduling delay, far below what a user would call a jump.
constexpr std::int64_t kLateNs = 250 * kMillisecondNs;

// At most this many records at once: 16 frames of the largest tracker.
constexpr std::size_t kBatch = 512;

// A writer that starts is not a stream yet for a moment: so many openings, 50 ms apart.
constexpr int kOpeningsOfAStart = 20;

constexpr std::int64_t kLookEveryNs = 250 * kMillisecondNs;      // at the state
constexpr std::int64_t kRefreshEveryNs = 1000 * kMillisecondNs;  // the run, which changes as often

}  // namespace

StreamSource::StreamSource(int slot) {
  state_.slot = slot;
  state_.sentence = "waiting for a tracker";
  records_.reserve(kBatch);
}

StreamSource::~StreamSource() {
  if (open_) kinetrel_stream_close(&stream_);
}

bool StreamSource::OpenStream() {
  const kinetrel_stream_result result = kinetrel_stream_open(&stream_, state_.slot, 0);
  open_ = result == kinetrel_stream_ok;
  if (open_) {
    BeginWriter();
    return true;
  }
  unfinished_ = result == kinetrel_stream_not_a_stream ? unfinished_ + 1 : 0;
  const bool isAwaited =
      result == kinetrel_stream_none || (unfinished_ > 0 && unfinished_ <= kOpeningsOfAStart);
  state_.sentence = isAwaited ? "waiting for a tracker" : kinetrel_stream_result_text(result);
  return false;
}

StreamSource::News StreamSource::Next(int patienceMs) {
  records_.clear();
  if (!open_) {
    const std::string before = state_.sentence;
    if (!OpenStream()) {
      SleepFor(Milliseconds(std::min(patienceMs, 50)));
      return {{}, state_.sentence != before};
    }
  }
  kinetrel_record record;
  bool late = false;
  const kinetrel_stream_result result = kinetrel_stream_next(&stream_, &record, patienceMs);
  if (result == kinetrel_stream_restarted) {
    BeginWriter();
  } else if (result == kinetrel_stream_ok) {
    late = !Collect(record);
  } else if (result != kinetrel_stream_timed_out) {
    kinetrel_stream_close(&stream_);
    open_ = false;
    const bool changed = state_.present || state_.sentence != kinetrel_stream_result_text(result);
    state_.present = false;
    state_.state = kinetrel_state_unknown;
    state_.sentence = kinetrel_stream_result_text(result);
    SleepFor(Milliseconds(std::min(patienceMs, 50)));  // it may fail at once, for ever
    return {{}, changed};
  }
  RefreshRun();
  if (late) nextLookNs_ = 0;
  const bool stateChanged = LookAtState();
  if (late && !state_.Delivers()) {  // of a tracker that was lost meanwhile
    jumped_ += records_.size();
    records_.clear();
  }
  if (state_.run.utc_ns == 0) records_.clear();  // their time cannot be told yet
  state_.skipped = kinetrel_stream_lost(&stream_) + jumped_;
  return {records_, stateChanged};
}

void StreamSource::BeginWriter() {
  taken_.fill(0);
  unfinished_ = 0;
  state_.run = {};
  nextLookNs_ = 0;
  nextRefreshNs_ = 0;
}

bool StreamSource::Collect(const kinetrel_record& first) {
  if (kinetrel_now_ns() - first.publish_ns > kLateNs) {
    TakeNewest(first);
    return false;
  }
  Keep(first);
  while (records_.size() < kBatch) {
    kinetrel_record record;
    const kinetrel_stream_result result = kinetrel_stream_next(&stream_, &record, 0);
    if (result == kinetrel_stream_restarted) BeginWriter();
    if (result != kinetrel_stream_ok) break;
    Keep(record);
  }
  return true;
}

void StreamSource::TakeNewest(const kinetrel_record& first) {
  kinetrel_stream_skip(&stream_);
  for (unsigned sensor = 0; sensor < kinetrel_stream_sensors; ++sensor) {
    kinetrel_record record;
    if (kinetrel_stream_newest(&stream_, sensor, &record) == kinetrel_stream_ok &&
        record.sensor == sensor && record.number > taken_[sensor]) {
      records_.push_back(record);
    }
  }
  std::sort(records_.begin(), records_.end(),
            [](const auto& a, const auto& b) { return a.number < b.number; });
  for (const kinetrel_record& record : records_) taken_[record.sensor] = record.number;
  if (records_.empty()) return;
  const kinetrel_record newest = records_.back();
  // A sensor that has stopped meanwhile.
  std::erase_if(records_,
                [&](const auto& each) { return newest.publish_ns - each.publish_ns > kLateNs; });
  const std::uint64_t passed = newest.number - std::min(first.number, newest.number) + 1;
  jumped_ += passed - std::min<std::uint64_t>(passed, records_.size());
}

void StreamSource::Keep(const kinetrel_record& record) {
  // One that TakeNewest has returned may come again.
  if (record.sensor >= kinetrel_stream_sensors || record.number <= taken_[record.sensor]) return;
  taken_[record.sensor] = record.number;
  records_.push_back(record);
}

void StreamSource::RefreshRun() {
  const std::int64_t now = kinetrel_now_ns();
  if (now < nextRefreshNs_) return;
  kinetrel_run run;
  if (kinetrel_stream_run(&stream_, &run) != kinetrel_stream_ok) return;
  runChanged_ = runChanged_ || run.sensor_mask != state_.run.sensor_mask ||
                std::strcmp(run.device_name, state_.run.device_name) != 0;
  state_.run = run;
  nextRefreshNs_ = now + kRefreshEveryNs;
}

bool StreamSource::LookAtState() {
  const std::int64_t now = kinetrel_now_ns();
  if (now < nextLookNs_) return false;
  nextLookNs_ = now + kLookEveryNs;
  char text[256];
  const kinetrel_state seen = kinetrel_stream_state(&stream_, text);
  const bool changed =
      !state_.present || seen != state_.state || state_.sentence != text || runChanged_;
  runChanged_ = false;
  state_.present = true;
  state_.state = seen;
  state_.sentence = text;
  return changed;
}

}  // namespace kinetrel::bridge

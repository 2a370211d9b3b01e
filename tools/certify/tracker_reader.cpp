#include "certify/tracker_reader.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/clock.h"

namespace kinetrel::certify {
namespace {

constexpr std::int64_t kLookEveryNs = 250'000'000;
constexpr int kMostAtOnce = 4096;  // records, so that a fast writer does not hold the caller
constexpr int kOpenEveryMs = 20;
constexpr int kOpeningsOfAStart = 50;

}  // namespace

TrackerReader::~TrackerReader() {
  if (open_) kinetrel_stream_close(&stream_);
}

// A writer that starts is not a stream yet for a moment, and then its run has no clock yet.
bool TrackerReader::Open() {
  kinetrel_stream_result result = kinetrel_stream_open(&stream_, slot_, 0);
  if (result == kinetrel_stream_ok) {
    kinetrel_run run;
    if (kinetrel_stream_run(&stream_, &run) == kinetrel_stream_ok && run.utc_ns != 0) {
      return Begin(run), true;
    }
    kinetrel_stream_close(&stream_);
    result = kinetrel_stream_not_a_stream;
  }
  ++vainOpenings_;
  unfinished_ = result == kinetrel_stream_not_a_stream ? unfinished_ + 1 : 0;
  const bool starts = unfinished_ > 0 && unfinished_ <= kOpeningsOfAStart;
  if (!starts) sentence_ = kinetrel_stream_result_text(result);
  return false;
}

void TrackerReader::Begin(const kinetrel_run& run) {
  open_ = true;
  // All of a tracker that came while it was awaited; of another one what comes from now on.
  if (vainOpenings_ > 0) kinetrel_stream_rewind(&stream_);
  const bool another = foundNs_ != 0;
  foundNs_ = kinetrel_now_ns();
  vainOpenings_ = unfinished_ = 0;
  priority_ = Priority::Unknown;
  nextLookNs_ = 0;
  measurement_.BeginWriter(run, another, foundNs_);
}

void TrackerReader::Close() {
  lost_ += kinetrel_stream_lost(&stream_);
  kinetrel_stream_close(&stream_);
  open_ = false;
}

void TrackerReader::Read(int patienceMs) {
  if (!open_ && !Open()) return SleepFor(Milliseconds(std::min(patienceMs, kOpenEveryMs)));
  for (int i = 0; i < kMostAtOnce; ++i) {
    kinetrel_record record;
    const kinetrel_stream_result result =
        kinetrel_stream_next(&stream_, &record, i == 0 ? patienceMs : 0);
    const std::int64_t now = kinetrel_now_ns();
    if (result == kinetrel_stream_ok) {
      measurement_.TakeRecord(record, now, record.publish_ns >= foundNs_);
      continue;
    }
    if (result == kinetrel_stream_timed_out) break;
    Close();
    vainOpenings_ = 1;  // what the next writer published meanwhile is taken too
    if (result != kinetrel_stream_restarted) {
      Say(now, kinetrel_state_unknown, kinetrel_stream_result_text(result));
    }
    return;
  }
  LookAtState();
  measurement_.SetLostHere(lost_ + kinetrel_stream_lost(&stream_));
}

void TrackerReader::ReadRun() {
  if (!open_) return;
  nextLookNs_ = 0;
  LookAtState();
}

void TrackerReader::LookAtState() {
  const std::int64_t now = kinetrel_now_ns();
  if (now < nextLookNs_) return;
  nextLookNs_ = now + kLookEveryNs;
  std::array<char, 256> text{};
  const kinetrel_state state = kinetrel_stream_state(&stream_, text.data());
  Say(now, state, text.data());
  kinetrel_run run;
  if (kinetrel_stream_run(&stream_, &run) == kinetrel_stream_ok) {
    measurement_.TakeRun(run);
  }
  LookAtLog();
}

void TrackerReader::Say(std::int64_t nowNs, kinetrel_state state, const std::string& sentence) {
  if (state == state_ && sentence == sentence_) return;
  state_ = state;
  sentence_ = sentence;
  measurement_.TakeEvent(nowNs, std::string(kinetrel_state_text(state)) + ": " + sentence);
}

void TrackerReader::LookAtLog() {
  std::array<kinetrel_log_line, kinetrel_stream_log_lines> lines;
  const int count = kinetrel_stream_log(&stream_, lines.data(), static_cast<int>(lines.size()));
  for (int i = 0; i < count; ++i) {
    const kinetrel_log_line& line = lines[static_cast<std::size_t>(i)];
    if (i == 0 && line.number == 1 && priority_ == Priority::Unknown) {
      priority_ = Priority::RealTime;  // unless a line says otherwise
    }
    if (std::string_view(line.text).find("without real-time priority") != std::string_view::npos) {
      priority_ = Priority::Ordinary;
    }
  }
}

}  // namespace kinetrel::certify

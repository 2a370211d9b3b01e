#include "watch/stream_watcher.h"

#include <cstdio>
#include <cstring>

namespace kinetrel::watch {
namespace {

constexpr int kIdleMs = 250;  // between two looks at a stop request, a key, a new writer
constexpr int kDrawMs = 50;
constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kRateWindow = 1'000'000'000;  // ns
constexpr std::int64_t kLookPeriod = 1'000'000'000;  // ns

// What passes by itself when a tracker comes.
bool IsAwaited(kinetrel_stream_result result) {
  return result == kinetrel_stream_none || result == kinetrel_stream_not_a_stream;
}

}  // namespace

StreamWatcher::StreamWatcher(const WatchOptions& options, const std::atomic<int>& stop, bool table)
    : options_(options), stop_(stop), table_(table) {
  std::memset(&stream_, 0, sizeof stream_);
  now_.slot = options.slot;
  if (table && options.frames == 0 && !options.timeout.has_value()) keys_.emplace();
}

StreamWatcher::~StreamWatcher() {
  if (now_.open) kinetrel_stream_close(&stream_);
}

ExitCode StreamWatcher::Run() {
  Deadline patience(options_.timeout.value_or(kForever));
  std::uint64_t shown = 0;
  for (;;) {
    kinetrel_record record;
    const kinetrel_stream_result result = Take(record);
    LookAtState();
    WriteResult written = WriteResult::Written;
    if (result == kinetrel_stream_ok) {
      patience = Deadline(options_.timeout.value_or(kForever));
      if (!table_ && !options_.log) written = ShowRecord(record);
      ++shown;
    } else if (result > kinetrel_stream_restarted && !IsAwaited(result)) {
      std::fprintf(stderr, "kinetrel-watch: slot %d: %s\n", options_.slot,
                   kinetrel_stream_result_text(result));
      return ExitCode::CannotOpen;
    } else if (!table_) {
      Announce();
    }
    if (options_.log && now_.open) {
      written = ShowLog();
      if (written == WriteResult::Written) return ExitCode::Done;
    } else if (table_) {
      written = ShowTable();
    }
    if (written == WriteResult::Failed) {
      std::perror("kinetrel-watch: the output cannot be written");
      return ExitCode::CannotWrite;
    }
    if (stop_.load() != 0 || written == WriteResult::ReaderGone || KeyEnds()) return ExitCode::Done;
    if (options_.frames != 0 && shown >= options_.frames) return ExitCode::Done;
    if (patience.Passed()) {
      const double seconds = static_cast<double>(options_.timeout->count()) / 1000;
      std::fprintf(stderr, "kinetrel-watch: no record for %s s\n", JsonNumber(seconds).c_str());
      return ExitCode::TimedOut;
    }
  }
}

// The next record, or why there is none within a short wait.
kinetrel_stream_result StreamWatcher::Take(kinetrel_record& record) {
  const int wait = table_ ? kDrawMs : kIdleMs;
  if (!now_.open) {
    const kinetrel_stream_result opened = kinetrel_stream_open(&stream_, options_.slot, 0);
    now_.open = opened == kinetrel_stream_ok;
    if (now_.open) return kinetrel_stream_timed_out;
    LookElsewhere();
    SleepFor(Milliseconds(wait));
    return opened;
  }
  const kinetrel_stream_result result = kinetrel_stream_next(&stream_, &record, wait);
  if (result == kinetrel_stream_restarted) now_.newest.fill({});
  if (result == kinetrel_stream_ok && record.sensor < counts_.size()) {
    now_.newest[record.sensor] = record;
    ++counts_[record.sensor];
  }
  return result;
}

// Once a second: a look opens every stream of the machine.
void StreamWatcher::LookElsewhere() {
  const std::int64_t now = kinetrel_now_ns();
  if (now < nextLook_) return;
  nextLook_ = now + kLookPeriod;
  now_.elsewhere.clear();
  for (int slot = 1; slot <= kinetrel_stream_slots; ++slot) {
    kinetrel_stream other;
    if (slot == options_.slot || kinetrel_stream_open(&other, slot, 0) != kinetrel_stream_ok) {
      continue;
    }
    std::array<char, 256> sentence{};
    if (kinetrel_stream_state(&other, sentence.data()) == kinetrel_state_running) {
      now_.elsewhere.push_back(slot);
    }
    kinetrel_stream_close(&other);
  }
}

void StreamWatcher::LookAtState() {
  now_.nowNs = kinetrel_now_ns();
  if (!now_.open) return;
  std::array<char, 256> sentence{};
  now_.state = kinetrel_stream_state(&stream_, sentence.data());
  now_.sentence = sentence.data();
  now_.lost = kinetrel_stream_lost(&stream_);
  kinetrel_run run;
  if (kinetrel_stream_run(&stream_, &run) == kinetrel_stream_ok) now_.run = run;
  const std::int64_t span = now_.nowNs - countedFrom_;
  if (span < kRateWindow) return;
  for (std::size_t i = 0; i < counts_.size(); ++i) {
    now_.rates[i] = counts_[i] * 1e9 / static_cast<double>(span);
  }
  counts_.fill(0);
  countedFrom_ = now_.nowNs;
}

void StreamWatcher::Announce() {
  const std::string words = StreamStateWords(now_);
  if (words == announced_) return;
  announced_ = words;
  std::fprintf(stderr, "kinetrel-watch: %s\n", words.c_str());
}

WriteResult StreamWatcher::ShowRecord(const kinetrel_record& record) {
  return WriteOut((options_.form == OutputForm::Json
                       ? JsonRecord(record, now_, options_.degrees)
                       : PlainRecord(record, now_.nowNs, options_.degrees)) +
                  "\n");
}

WriteResult StreamWatcher::ShowTable() {
  if (now_.nowNs < nextDraw_) return WriteResult::Written;
  nextDraw_ = now_.nowNs + kDrawMs * kNsPerMs;
  if (logShown_ && now_.open) {
    now_.log.resize(kinetrel_stream_log_lines);
    const int lines = kinetrel_stream_log(&stream_, now_.log.data(), kinetrel_stream_log_lines);
    now_.log.resize(static_cast<std::size_t>(lines));
  } else {
    now_.log.clear();
  }
  const TerminalSize size = StandardOutputSize();
  return screen_.Draw(
      StreamTable(now_, {.degrees = options_.degrees, .columns = size.columns, .rows = size.rows}),
      size);
}

WriteResult StreamWatcher::ShowLog() {
  std::array<kinetrel_log_line, kinetrel_stream_log_lines> lines;
  const int count = kinetrel_stream_log(&stream_, lines.data(), kinetrel_stream_log_lines);
  std::string text;
  for (int i = 0; i < count; ++i) text += LogWords(lines[static_cast<std::size_t>(i)]) + "\n";
  return WriteOut(text);
}

// l shows and hides the log; q and ESC end.
bool StreamWatcher::KeyEnds() {
  constexpr int kEscape = 27;
  if (!keys_) return false;
  const std::optional<Key> key = TakeKey();
  if (!key.has_value() || key->extended) return false;
  if (key->code == 'l' || key->code == 'L') {
    logShown_ = !logShown_;
    nextDraw_ = 0;
  }
  return key->code == 'q' || key->code == 'Q' || key->code == kEscape;
}

}  // namespace kinetrel::watch

#include "publish/record_stream_writer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/clock.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kBeat{1000};
constexpr double kMemory = 1.0;  // s; means are of about that long

// Where the parts lie. The words that change all the time begin a cache line of their own.
constexpr std::uint32_t kLiveAt = 128;
constexpr std::uint32_t kRunAt = kLiveAt + sizeof(kinetrel_stream_live);
constexpr std::uint32_t kSensorsAt = kRunAt + sizeof(kinetrel_run);
constexpr std::uint32_t kLogAt = kSensorsAt + kinetrel_stream_sensors * sizeof(kinetrel_record);
constexpr std::uint32_t kRingAt = kLogAt + kinetrel_stream_log_lines * sizeof(kinetrel_log_line);
constexpr std::uint32_t kOwnPosesAt = kRingAt + kinetrel_stream_records * sizeof(kinetrel_record);
constexpr std::uint32_t kTotal =
    kOwnPosesAt + kinetrel_stream_records * sizeof(kinetrel_device_pose);
static_assert(kLiveAt >= sizeof(kinetrel_stream_head) && kLiveAt % 64 == 0 && kRingAt % 8 == 0);
static_assert(kTotal < 1'500'000);

using Word = std::uint64_t;

// Each word is released after the ones before: a reader that sees one sees the odd sequence number
// that came first.
void StoreWord(unsigned char* to, Word word) {
  std::atomic_ref(*reinterpret_cast<Word*>(to)).store(word, std::memory_order_release);
}

void StoreWords(unsigned char* to, const void* from, std::size_t size) {
  std::size_t i = 0;
#if defined(KINETREL_HAS_PAIRS)
  for (; size - i >= sizeof(kinetrel_pair_); i += sizeof(kinetrel_pair_)) {
    kinetrel_pair_ pair;
    std::memcpy(&pair, static_cast<const unsigned char*>(from) + i, sizeof pair);
    *reinterpret_cast<volatile kinetrel_pair_*>(to + i) = pair;
  }
  std::atomic_signal_fence(std::memory_order_seq_cst);
#endif
  for (; i < size; i += sizeof(Word)) {
    Word word = 0;
    std::memcpy(&word, static_cast<const unsigned char*>(from) + i, sizeof word);
    StoreWord(to + i, word);
  }
}

// Writes an entry whose first word is its sequence number; `sequence` is even.
void WriteEntry(unsigned char* to, Word sequence, const void* from, std::size_t size) {
  StoreWord(to, sequence - 1);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  StoreWords(to + sizeof(Word), static_cast<const unsigned char*>(from) + sizeof(Word),
             size - sizeof(Word));
  StoreWord(to, sequence);
}

std::int64_t UtcNanoseconds() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

std::int64_t NowNanoseconds() { return StreamNanoseconds(ClockTicks()); }

template <std::size_t Size>
void PutText(char (&field)[Size], const char* text) {
  std::memset(field, 0, Size);
  std::snprintf(field, Size, "%s", text);
}

// The weight of what came after `seconds` in a mean over kMemory.
double WeightOf(double seconds) { return std::clamp(seconds / kMemory, 0.001, 1.0); }

}  // namespace

std::string StreamName(int device) {
  return std::string("KinetrelStream") + "0123456789ABCDEF"[device & 0xF];
}

std::int64_t StreamNanoseconds(std::int64_t ticks) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  const std::int64_t perSecond = ClockTicksPerSecond();
  return ticks / perSecond * kNanoseconds + ticks % perSecond * kNanoseconds / perSecond;
}

// ---- Life ------------------------------------------------------------------------------------

Result<std::unique_ptr<RecordStreamWriter>> RecordStreamWriter::Open(int device) {
  Result<StreamMemory> memory = StreamMemory::Create(StreamName(device), kTotal);
  if (!memory.Ok()) return memory.status();
  return std::unique_ptr<RecordStreamWriter>(new RecordStreamWriter(std::move(*memory), device));
}

RecordStreamWriter::RecordStreamWriter(StreamMemory memory, int device)
    : memory_(std::move(memory)) {
  auto* const start = static_cast<unsigned char*>(memory_.data());
  live_ = reinterpret_cast<kinetrel_stream_live*>(start + kLiveAt);
  runEntry_ = start + kRunAt;
  sensorEntries_ = start + kSensorsAt;
  logEntries_ = start + kLogAt;
  ring_ = start + kRingAt;
  ownPoses_ = start + kOwnPosesAt;
  LayOut(device);
  try {
    heartbeat_ = std::thread([this] { BeatEverySecond(); });
  } catch (const std::system_error&) {  // the frames beat; see NoteFrame
  }
}

RecordStreamWriter::~RecordStreamWriter() {
  stop_.Set();
  if (heartbeat_.joinable()) heartbeat_.join();
  Beat();
  SetState(kinetrel_state_stopped, "The tracker's program has closed.");
}

// The magic number comes last: a reader that finds it finds all the rest.
void RecordStreamWriter::LayOut(int device) {
  auto* const start = static_cast<unsigned char*>(memory_.data());
  for (std::uint32_t at = 0; at < kTotal; at += sizeof(Word)) StoreWord(start + at, 0);
  {
    const Lock held(lock_);
    run_.started_ns = run_.state_since_ns = NowNanoseconds();
    run_.state = kinetrel_state_starting;
    run_.port = -1;
    PutText(run_.state_text, "The tracker is being started.");
    for (int i = 0; i < kinetrel_stream_sensors; ++i) {
      char name[kinetrel_stream_sensor_name_size];
      std::snprintf(name, sizeof name, "Sensor %d", i + 1);
      PutText(run_.sensor_names[i], name);
    }
  }
  Beat();
  kinetrel_stream_head head{};
  std::memcpy(head.magic, "KINETREL", sizeof head.magic);
  head.version = kinetrel_stream_version;
  head.head_size = sizeof head;
  head.total_size = kTotal;
  head.instance = static_cast<std::uint64_t>(UtcNanoseconds());
  head.writer_pid = OwnProcessId();
  head.slot = static_cast<std::uint32_t>(device) + 1;
  head.live_offset = kLiveAt;
  head.live_size = sizeof(kinetrel_stream_live);
  head.run_offset = kRunAt;
  head.run_size = sizeof(kinetrel_run);
  head.sensor_offset = kSensorsAt;
  head.sensor_count = kinetrel_stream_sensors;
  head.log_offset = kLogAt;
  head.log_count = kinetrel_stream_log_lines;
  head.log_line_size = sizeof(kinetrel_log_line);
  head.ring_offset = kRingAt;
  head.ring_count = kinetrel_stream_records;
  head.record_size = sizeof(kinetrel_record);
  head.device_pose_offset = kOwnPosesAt;
  head.device_pose_size = sizeof(kinetrel_device_pose);
  Word magic = 0;
  std::memcpy(&magic, head.magic, sizeof magic);
  StoreWords(start + sizeof magic, reinterpret_cast<const unsigned char*>(&head) + sizeof magic,
             sizeof head - sizeof magic);
  StoreWord(start, magic);
  memory_.Offer();
}

// ---- Records ---------------------------------------------------------------------------------

// A device's own pose goes before its record: who finds the record finds the pose.
void RecordStreamWriter::Publish(std::span<kinetrel_record> records, kinetrel_device_pose* own) {
  const std::int64_t now = NowNanoseconds();
  for (std::size_t i = 0; i < records.size(); ++i) {
    kinetrel_record& record = records[i];
    if (record.sensor >= kinetrel_stream_sensors) continue;
    record.publish_ns = now;
    record.number = ++newest_;
    const Word sequence = 2 * record.number;
    if ((record.flags & kinetrel_filtered) != 0 && own != nullptr) {
      own[i].number = record.number;
      WriteEntry(ownPoses_ + record.number % kinetrel_stream_records * sizeof own[i], sequence,
                 &own[i], sizeof own[i]);
    }
    WriteEntry(ring_ + record.number % kinetrel_stream_records * sizeof record, sequence, &record,
               sizeof record);
    WriteEntry(sensorEntries_ + record.sensor * sizeof record, sequence, &record, sizeof record);
  }
  if (!records.empty()) {
    const double latency = static_cast<double>(now - records.front().sample_ns) * 1e-9;
    latency_ += (latency - latency_) * WeightOf(interval_);
    worstLatency_ = std::max(worstLatency_, latency);
  }
  std::atomic_ref(live_->newest).store(newest_, std::memory_order_release);
  memory_.Announce(&live_->arrivals);
}

void RecordStreamWriter::NoteFrame(std::int64_t sampleNs) {
  Add(frames_, 1);
  if (lastFrame_ != 0 && sampleNs > lastFrame_) {
    const double interval = static_cast<double>(sampleNs - lastFrame_) * 1e-9;
    const double weight = interval_ == 0.0 ? 1.0 : WeightOf(interval);
    const double off = interval - interval_;
    interval_ += off * weight;
    if (weight < 1.0) spread_ = (1.0 - weight) * (spread_ + weight * off * off);
    measuredRate_.store(1.0 / interval_, std::memory_order_relaxed);
    jitter_.store(std::sqrt(spread_), std::memory_order_relaxed);
  }
  lastFrame_ = sampleNs;
  latencyMean_.store(latency_, std::memory_order_relaxed);
  latencyMax_.store(worstLatency_, std::memory_order_relaxed);
}

void RecordStreamWriter::SetBytes(std::uint64_t in, std::uint64_t out) {
  bytesIn_.store(in, std::memory_order_relaxed);
  bytesOut_.store(out, std::memory_order_relaxed);
}

void RecordStreamWriter::SetFilterLag(int sensor, double seconds) {
  const double steps = std::clamp(std::round(seconds * 1e5), 0.0, 65535.0);
  filterLag_[static_cast<std::size_t>(sensor)].store(static_cast<std::uint16_t>(steps),
                                                     std::memory_order_relaxed);
}

// ---- Run -------------------------------------------------------------------------------------

void RecordStreamWriter::WriteRun() {
  run_.sequence += 2;
  WriteEntry(runEntry_, run_.sequence, &run_, sizeof run_);
}

void RecordStreamWriter::TakeStatistics() {
  run_.frames = frames_.load(std::memory_order_relaxed);
  run_.failed_reads = failedReads_.load(std::memory_order_relaxed);
  run_.dropped = dropped_.load(std::memory_order_relaxed);
  run_.recoveries = recoveries_.load(std::memory_order_relaxed);
  run_.bytes_in = bytesIn_.load(std::memory_order_relaxed);
  run_.bytes_out = bytesOut_.load(std::memory_order_relaxed);
  run_.measured_rate = measuredRate_.load(std::memory_order_relaxed);
  run_.jitter = jitter_.load(std::memory_order_relaxed);
  run_.latency_mean = latencyMean_.load(std::memory_order_relaxed);
  run_.latency_max = latencyMax_.load(std::memory_order_relaxed);
  for (std::size_t i = 0; i < filterLag_.size(); ++i) {
    run_.filter_lag[i] = filterLag_[i].load(std::memory_order_relaxed);
  }
}

void RecordStreamWriter::SetState(kinetrel_state state, const char* sentence) {
  {
    const Lock held(lock_);
    const bool ended = run_.state == kinetrel_state_stopped || run_.state == kinetrel_state_failed;
    const bool same = run_.state == state && std::strcmp(run_.state_text, sentence) == 0;
    if (ended || same) return;
    if (run_.state != state) run_.state_since_ns = NowNanoseconds();
    run_.state = state;
    PutText(run_.state_text, sentence);
    WriteRun();
  }
  memory_.Announce(&live_->arrivals);
}

void RecordStreamWriter::Beat() {
  const std::int64_t now = NowNanoseconds();
  {
    const Lock held(lock_);
    run_.clock_ns = now;
    run_.utc_ns = UtcNanoseconds();
    TakeStatistics();
    WriteRun();
  }
  std::atomic_ref(live_->heartbeat_ns).store(now, std::memory_order_release);
}

void RecordStreamWriter::BeatEverySecond() {
  while (!stop_.Wait(kBeat)) {
    Beat();
    if (memory_.Replaced()) {
      SetState(kinetrel_state_stopped, "Another program publishes on this slot now.");
    }
  }
}

void RecordStreamWriter::AddLogLine(std::time_t when, int code, const char* text) {
  kinetrel_log_line line{};
  line.utc_ns = std::int64_t{when} * 1'000'000'000;
  line.code = code;
  PutText(line.text, text);
  ++logNewest_;
  WriteEntry(logEntries_ + logNewest_ % kinetrel_stream_log_lines * sizeof line, 2 * logNewest_,
             &line, sizeof line);
  std::atomic_ref(live_->log_newest).store(logNewest_, std::memory_order_release);
}

}  // namespace kinetrel

#include "capture/capture.h"

#include <array>
#include <atomic>
#include <cinttypes>
#include <cstring>
#include <utility>

#include "mcap/recording_writer.h"
#include "platform/clock.h"
#include "publish/record_stream_writer.h"

namespace kinetrel {
namespace {

using mcap::JsonText;
using mcap::Topic;
using mcap::TopicKind;

constexpr Milliseconds kLookEvery{50};
constexpr std::int64_t kFlushEvery = 500'000'000;  // ns: a killed program loses less than a second
constexpr Milliseconds kClosePatience{5000};

// A piece of the ring: what passed over the line, and two more.
constexpr auto kRunPiece = static_cast<std::uint16_t>(100);
constexpr auto kRecordPiece = static_cast<std::uint16_t>(101);

// In the order of LineEvent.
constexpr std::array kLineTopics{TopicKind::LineReceived, TopicKind::LineSent,
                                 TopicKind::LineOpened,   TopicKind::LineSettings,
                                 TopicKind::LineLost,     TopicKind::LineClosed};

std::int64_t Now() { return StreamNanoseconds(ClockTicks()); }

template <typename Value>
std::span<const std::byte> BytesOf(const Value* value, std::size_t count = 1) {
  return std::as_bytes(std::span(value, count));
}

// Takes a value off the front of `bytes`; zeros if they are too few.
template <typename Value>
Value TakeValue(std::span<const std::byte>& bytes) {
  Value value{};
  if (bytes.size() < sizeof value) return value;
  std::memcpy(&value, bytes.data(), sizeof value);
  bytes = bytes.subspan(sizeof value);
  return value;
}

}  // namespace

// ---- The thread --------------------------------------------------------------------------------

struct Capture::Shared {
  CaptureRing ring{kRingSize};
  std::atomic<bool> stop = false;
  std::string path;
  std::shared_ptr<StatusLog> log;
  std::int64_t clockNs = 0;  // a pair: this moment of the machine's clock ...
  std::int64_t utcNs = 0;    // ... is this one since 1970

  // Of the thread alone.
  mcap::RecordingWriter writer;
  CapturedPiece piece;
  std::uint64_t entriesSeen = 0;
  std::uint64_t lostTold = 0;
  std::int64_t flushedNs = 0;

  void Run();
  Status WriteAll();
  Status WritePiece();
  Status WriteEntries();
  Status WriteLost();
  Status FlushInTime();
  void TellEnd(const Status& written);

  std::uint64_t Utc(std::int64_t timeNs) const {
    return static_cast<std::uint64_t>(utcNs + (timeNs - clockNs));
  }
};

void Capture::Shared::Run() {
  Status written;
  for (bool last = false; written.Ok() && !last;) {
    last = stop;  // read before the ring: what was put before the stop is written
    written = WriteAll();
    if (!last) SleepFor(kLookEvery);
  }
  const Status closed = writer.Close();
  TellEnd(written.Ok() ? closed : written);
}

Status Capture::Shared::WriteAll() {
  Status written;
  while (written.Ok() && ring.Take(piece)) written = WritePiece();
  if (written.Ok()) written = WriteEntries();
  if (written.Ok()) written = WriteLost();
  return written.Ok() ? FlushInTime() : written;
}

Status Capture::Shared::WritePiece() {
  std::span<const std::byte> bytes = piece.bytes;
  const int slot = piece.head.slot;
  if (piece.head.kind == kRunPiece) return writer.WriteRun(slot, TakeValue<kinetrel_run>(bytes));
  if (piece.head.kind == kRecordPiece) {
    const auto record = TakeValue<kinetrel_record>(bytes);
    const auto own = TakeValue<kinetrel_device_pose>(bytes);
    return writer.WriteRecord(slot, record, &own);
  }
  const Topic topic{.kind = kLineTopics.at(piece.head.kind)};
  const std::uint64_t utc = Utc(piece.head.timeNs);
  switch (topic.kind) {
    case TopicKind::LineReceived:
    case TopicKind::LineSent:
      return writer.WriteBytes(topic, utc, Utc(piece.head.sinceNs), bytes);
    case TopicKind::LineOpened:
    case TopicKind::LineSettings: {
      const std::string text(static_cast<const char*>(static_cast<const void*>(bytes.data())),
                             bytes.size());
      return writer.WriteJson(topic, utc, "{\"text\":" + JsonText(text) + "}");
    }
    default:
      return writer.WriteJson(topic, utc, "{}");
  }
}

Status Capture::Shared::WriteEntries() {
  Status written;
  for (const StatusEntry& entry : log->EntriesAfter(entriesSeen)) {
    if (!written.Ok()) break;
    written = writer.WriteJson(
        {.kind = TopicKind::CaptureLog}, Utc(Now()),
        "{\"code\":" + std::to_string(entry.code) + ",\"text\":" + JsonText(entry.text) + "}");
  }
  return written;
}

Status Capture::Shared::WriteLost() {
  const std::uint64_t lost = ring.lost();
  if (lost == lostTold) return {};
  if (lostTold == 0) {
    Announce(*log, "\n\t", StatusCode::Refused,
             "The disk is too slow for the capture: parts of it are lost. Sampling goes on.");
  }
  lostTold = lost;
  return writer.WriteJson({.kind = TopicKind::CaptureLost}, Utc(Now()),
                          "{\"pieces\":" + std::to_string(lost) + "}");
}

Status Capture::Shared::FlushInTime() {
  const std::int64_t now = Now();
  if (now - flushedNs < kFlushEvery) return {};
  flushedNs = now;
  return writer.Flush();
}

void Capture::Shared::TellEnd(const Status& written) {
  if (!written.Ok()) {
    Announce(*log, "\n\t", StatusCode::Refused,
             "The capture %s ended: %s. What was written before stays readable. Sampling goes on.",
             path.c_str(), Describe(written).c_str());
    return;
  }
  Announce(*log, "\n\t", StatusCode::Counts, "Captured %.1f kB into %s; %" PRIu64 " parts lost.",
           static_cast<double>(writer.bytes()) / 1000.0, path.c_str(), ring.lost());
}

// ---- The other threads -------------------------------------------------------------------------

Result<std::shared_ptr<Capture>> Capture::Open(const std::string& path, const std::string& options,
                                               std::shared_ptr<StatusLog> log) {
  auto shared = std::make_shared<Shared>();
  shared->path = path;
  shared->log = std::move(log);
  shared->clockNs = Now();
  shared->utcNs = static_cast<std::int64_t>(mcap::UtcNow());
  shared->writer.SetText("options", options);
  Status made = shared->writer.Open(path, KINETREL_VERSION);
  if (made.Ok()) made = shared->writer.WriteTexts();
  if (!made.Ok()) return made;
  auto thread = Thread::Start([shared] { shared->Run(); });
  if (!thread.Ok()) return thread.status();
  std::shared_ptr<Capture> capture(new Capture(std::move(shared)));
  capture->thread_.emplace(std::move(*thread));
  return capture;
}

void Capture::OnLine(LineEvent event, std::span<const std::byte> bytes, std::int64_t since) {
  shared_->ring.Put({.timeNs = Now(),
                     .sinceNs = StreamNanoseconds(since),
                     .kind = static_cast<std::uint16_t>(event)},
                    bytes);
}

void Capture::OnRun(int slot, kinetrel_run run) {
  run.clock_ns = shared_->clockNs;
  run.utc_ns = shared_->utcNs;
  shared_->ring.Put({.timeNs = Now(), .kind = kRunPiece, .slot = static_cast<std::uint16_t>(slot)},
                    BytesOf(&run));
}

void Capture::OnRecords(int slot, std::span<const kinetrel_record> records,
                        const kinetrel_device_pose* own) {
  const CapturedHead head{.kind = kRecordPiece, .slot = static_cast<std::uint16_t>(slot)};
  for (std::size_t i = 0; i < records.size(); ++i) {
    const bool filtered = (records[i].flags & kinetrel_filtered) != 0;
    shared_->ring.Put(head, BytesOf(&records[i]), BytesOf(own, filtered && own != nullptr ? 1 : 0));
    if (own != nullptr) ++own;
  }
}

void Capture::Close() {
  if (!thread_) return;
  shared_->stop = true;
  if (!thread_->Wait(kClosePatience)) {
    Announce(*shared_->log, "\n\t", StatusCode::Refused,
             "The disk does not take the end of the capture %s; it is left.",
             shared_->path.c_str());
  }
  thread_.reset();
}

}  // namespace kinetrel

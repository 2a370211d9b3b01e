// What publishing into the record stream costs, how soon waiting clients have their record, what
// clients cost the writer, and whether a reader ever sees a torn record.
#include <kinetrel/stream.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/floors.h"
#include "bench/machine.h"
#include "publish/record_stream_writer.h"

namespace kinetrel::bench {
namespace {

constexpr int kLonelyDevice = kBenchDevice - 1;  // without clients
constexpr int kSensors = kinetrel_stream_sensors;

using Records = std::array<kinetrel_record, kSensors>;

std::unique_ptr<RecordStreamWriter> OpenStream(int device) {
  auto opened = RecordStreamWriter::Open(device);
  if (!opened.Ok()) throw std::runtime_error(Describe(opened.status()));
  return std::move(*opened);
}

class Reader {
 public:
  Reader() {
    if (kinetrel_stream_open(&stream_, kBenchDevice + 1, 5000) != kinetrel_stream_ok) {
      throw std::runtime_error("the stream cannot be opened");
    }
  }
  ~Reader() { kinetrel_stream_close(&stream_); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  kinetrel_stream* get() { return &stream_; }

 private:
  kinetrel_stream stream_;
};

Records FrameOfAll() {
  Records records{};
  for (std::uint32_t i = 0; i < records.size(); ++i) records[i].sensor = i;
  return records;
}

// ---- Publishing --------------------------------------------------------------------------------

// A frame's records copied into a ring as large as the stream's, and a wake-up.
class BareFrame {
 public:
  void operator()(const Records& records) {
    for (const kinetrel_record& record : records) {
      std::memcpy(&ring_[next_++ % ring_.size()], &record, sizeof record);
    }
    word_.fetch_add(1);
    ::syscall(SYS_futex, &word_, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
  }

 private:
  std::vector<kinetrel_record> ring_{kinetrel_stream_records};
  std::size_t next_ = 0;
  std::atomic<std::uint32_t> word_ = 0;
};

void PublishingAFrame(Report& report) {
  const auto writer = OpenStream(kLonelyDevice);
  BareFrame bare;
  Records records = FrameOfAll();
  const auto time = Interleave(1000, TimedBlock(256, [&] { bare(records); }),
                               TimedBlock(256, [&] { writer->Publish(records); }));
  report.Ratio("publishing a frame of 32 sensors", time[0], "ns", 1.5);
}

// ---- Handing over ------------------------------------------------------------------------------

class StreamHandover final : public Handover {
 public:
  void OpenGiver() override {
    writer_ = OpenStream(kBenchDevice);
    lonely_ = OpenStream(kLonelyDevice);
  }
  void OpenTaker() override { reader_ = std::make_unique<Reader>(); }
  void CloseGiver() override {
    writer_.reset();
    lonely_.reset();
  }
  void Give() override { writer_->Publish({&record_, 1}); }
  void Rehearse() override { lonely_->Publish({&record_, 1}); }
  void CatchUp() override { kinetrel_stream_skip(reader_->get()); }
  void Take() override {
    while (kinetrel_stream_next(reader_->get(), &record_, kinetrel_forever) != kinetrel_stream_ok) {
    }
  }

 private:
  std::unique_ptr<RecordStreamWriter> writer_;
  std::unique_ptr<RecordStreamWriter> lonely_;
  std::unique_ptr<Reader> reader_;
  kinetrel_record record_{};
};

void HandingOver(Report& report, const char* item, const HandoverPlan& plan, double limit) {
  BareWake bare;
  StreamHandover stream;
  report.Ratio(item, MeasureHandover(plan, bare, stream).arrival, "ns", limit);
}

// ---- Reading -----------------------------------------------------------------------------------

void ReadingFourSensors(Report& report) {
  const auto writer = OpenStream(kBenchDevice);
  Records records = FrameOfAll();
  writer->Publish(records);
  Reader reader;
  std::array<kinetrel_record, 4> copies;
  const unsigned char* const table = reader.get()->memory + reader.get()->head.sensor_offset;
  const auto copy = [&] {
    std::memcpy(copies.data(), table, sizeof copies);
    std::atomic_signal_fence(std::memory_order_seq_cst);  // the copy is made each time
  };
  const auto read = [&] {
    for (unsigned i = 0; i < copies.size(); ++i) {
      kinetrel_stream_newest(reader.get(), i, &copies[i]);
    }
  };
  const auto time = Interleave(1000, TimedBlock(1000, copy), TimedBlock(1000, read));
  report.Ratio("a client's copy of 4 sensors", time[0], "ns", 1.5);
}

// Both streams are published beside the same busy processes; only one of them is read. Readers that
// share a CPU with the writer or with each other read it now and then only. Then the figure depends
// on when the system lets each one run, and says nothing about the writer.
void ReadersFlatOut(Report& report) {
  constexpr int kReaders = 16;
  const auto read = OpenStream(kBenchDevice);
  const auto lonely = OpenStream(kLonelyDevice);
  Records records = FrameOfAll();
  read->Publish(records);
  std::deque<Child> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([] {
      Reader reader;
      kinetrel_record record;
      for (unsigned sensor = 0;; sensor = (sensor + 1) % kSensors) {
        kinetrel_stream_newest(reader.get(), sensor, &record);
        kinetrel_stream_next(reader.get(), &record, 0);
      }
    });
  }
  RunAtPriority(10);
  const auto time = Interleave(300, TimedBlock(64, [&] { lonely->Publish(records); }),
                               TimedBlock(64, [&] { read->Publish(records); }));
  RunAtNormalPriority();
  const std::string item = "publishing to 16 clients that read flat out";
  if (CpuCount() > kReaders) return report.Ratio(item, time[0], "ns", 1.3);
  report.Undecided(item, "needs " + std::to_string(kReaders + 1) + " CPUs; here " +
                             std::to_string(time[0].ratio.middle) + " x");
}

void PublishForEver() {
  const auto writer = OpenStream(kBenchDevice);
  for (kinetrel_record record{};; writer->Publish({&record, 1})) {
    ++record.frame;
    for (double& metre : record.position) metre = static_cast<double>(record.frame);
    record.sample_ns = static_cast<std::int64_t>(record.frame);
    record.buttons = static_cast<std::uint32_t>(record.frame);
  }
}

bool IsWhole(const kinetrel_record& record) {
  const auto count = static_cast<double>(record.frame);
  return record.position[0] == count && record.position[2] == count &&
         record.sample_ns == static_cast<std::int64_t>(record.frame) &&
         record.buttons == static_cast<std::uint32_t>(record.frame) &&
         record.number == record.frame;
}

void ChecksOfTornRecords(Report& report) {
  constexpr long kReads = 100'000'000;
  const Child writer(PublishForEver);
  Reader reader;
  kinetrel_record record;
  long torn = 0;
  for (long reads = 0; reads < kReads;) {
    if (kinetrel_stream_newest(reader.get(), 0, &record) != kinetrel_stream_ok) continue;
    ++reads;
    if (!IsWhole(record)) ++torn;
  }
  report.AtMost("torn records in 10^8 reads", static_cast<double>(torn), "", 0);
}

void Measure(Report& report) {
  PublishingAFrame(report);
  ReadingFourSensors(report);
  if (CpuCount() > 1) {
    HandingOver(report, "until a client has its record, on another CPU",
                {.placement = Placement::OtherCpu, .runs = 3, .cycles = 50}, 1.15);
  }
  HandingOver(report, "until a client has its record, on the same CPU",
              {.placement = Placement::SameCpu, .takersFirst = true, .runs = 3, .cycles = 50},
              1.15);
  HandingOver(
      report, "until the last of 16 clients has its record",
      {.placement = Placement::Spread, .takers = 16, .runs = 3, .cycles = 20, .blockSize = 15},
      1.25);
  ReadersFlatOut(report);
  ChecksOfTornRecords(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-stream", kinetrel::bench::Measure); }

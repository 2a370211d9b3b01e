// What a capture costs the sampling thread.
#include "capture/capture.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/harness.h"
#include "bench/machine.h"
#include "bench/tracing.h"
#include "publish/record_stream_writer.h"

namespace kinetrel::bench {
namespace {

constexpr std::size_t kSensors = 4;
constexpr int kBlockSize = 200;  // frames; a block fits into the capture's memory many times
constexpr int kCycles = 300;
constexpr int kCounted = 1000;

// A tracker's frame of four sensors: the bytes of its line, and its records in the stream.
class Frames {
 public:
  Frames() {
    auto writer = RecordStreamWriter::Open(kBenchDevice);
    if (!writer.Ok()) throw std::runtime_error(Describe(writer.status()));
    writer_ = std::move(*writer);
    for (std::uint32_t i = 0; i < kSensors; ++i) records_[i].sensor = i;
    auto capture = Capture::Open(path_, "", std::make_shared<StatusLog>());
    if (!capture.Ok()) throw std::runtime_error(Describe(capture.status()));
    capture_ = std::move(*capture);
  }
  ~Frames() {
    capture_->Close();
    std::filesystem::remove(path_);
  }
  Frames(const Frames&) = delete;
  Frames& operator=(const Frames&) = delete;

  void Publish() { writer_->Publish(records_); }
  void Capture() {
    capture_->OnLine(LineEvent::Received, line_, 0);
    capture_->OnRecords(1, records_, nullptr);
  }

 private:
  const std::string path_ = std::filesystem::temp_directory_path() / "kinetrel-bench-capture.mcap";
  std::unique_ptr<RecordStreamWriter> writer_;
  std::shared_ptr<kinetrel::Capture> capture_;
  std::array<kinetrel_record, kSensors> records_{};
  const std::array<std::byte, 47 * kSensors> line_{};
};

void Publishing(Report& report) {
  Frames frames;
  // So that the thread that writes the file works between the blocks, as it does beside a tracker.
  const auto pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
  const Block without = TimedBlock(kBlockSize, [&] { frames.Publish(); });
  const Block with = TimedBlock(kBlockSize, [&] {
    frames.Publish();
    frames.Capture();
  });
  const auto time = Interleave(
      kCycles, [&] { return pause(), without(); }, [&] { return pause(), with(); });
  report.Ratio("publishing 4 sensors with a capture, over without", time[0], "ns", 2.0);
}

void SystemCalls(Report& report) {
  const std::string item = "system calls of a frame's capture";
  const auto calls = CountSystemCalls([] {
    Frames frames;
    BeginCount();
    for (int i = 0; i < kCounted; ++i) frames.Capture();
    EndCount();
  });
  if (!calls) return report.Undecided(item, "tracing a child is not permitted here");
  report.AtMost(item, PerOperation(calls->own, kCounted), "", 0);
}

void Measure(Report& report) {
  Publishing(report);
  SystemCalls(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-capture", kinetrel::bench::Measure); }

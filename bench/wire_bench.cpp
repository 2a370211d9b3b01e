// From a tracker's wire to a client: what the driver, the engine and the publication cost between
// the last byte of a record and the moment the client has its pose.
#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "bench/far_end.h"
#include "bench/floors.h"
#include "bench/machine.h"
#include "bench/publication.h"
#include "bench/tracing.h"
#include "devices/serial_port.h"

namespace kinetrel::bench {
namespace {

constexpr int kRecordSize = 27;  // bytes; FASTRAK, position and angles as floats
constexpr int kCounted = 300;    // records, of which the reader's wake-ups are counted
constexpr std::byte kMark{0x10};
constexpr std::byte kPosition{0x4A};

// Floor and subject rest so long before each record: the longer a CPU slept, the slower it wakes.
constexpr Milliseconds kBetweenRecords{2};

bool Always(std::span<const std::byte>) { return true; }

bool IsPosition(std::span<const std::byte> report) {
  return report.size() > 2 && report[0] == kMark && report[1] == kPosition;
}

struct Row {
  const char* device;
  bool streaming;
  TellsPose tellsPose;
};
constexpr Row kRows[] = {
    {"fastrak", true, Always},   {"flock", true, Always},      {"pan-tilt", false, Always},
    {"logitech", false, Always}, {"intertrax", false, Always}, {"gps", true, IsPosition},
};

// The whole road, from the far end of the wire to a client.
class Tracker final : public Handover {
 public:
  explicit Tracker(const Row& row) : row_(row), device_(*FindDevice(row.device)) {}

  void OpenGiver() override {
    farEnd_ = std::make_unique<FarEnd>(device_);
    engine_ = OpenTracker(*farEnd_, device_.kinetrelType, row_.streaming);
    RunOnCpu(kGiverCpu + 1);  // where the floor's reader is, and the client
    engine_->StartSampling();
    RunOnCpu(kGiverCpu);
  }
  void CloseGiver() override { engine_.reset(); }

  void Prepare() override {
    farEnd_->AwaitRecord(row_.tellsPose);
    while (!OtherThreadsSleep()) std::this_thread::sleep_for(std::chrono::microseconds(100));
    SleepFor(kBetweenRecords);
  }
  void Give() override { farEnd_->SendRecord(); }
  void OpenTaker() override { client_.OpenTaker(); }
  void CatchUp() override { client_.CatchUp(); }
  void Take() override { client_.Take(); }

  int sent() const { return farEnd_->sent(); }

 private:
  const Row row_;
  const DeviceRow& device_;
  std::unique_ptr<FarEnd> farEnd_;
  std::unique_ptr<TrackerEngine> engine_;
  Publication client_;
};

// The floor: a bare poll and read.
class RestedLine final : public Handover {
 public:
  void Prepare() override { SleepFor(kBetweenRecords); }
  void Give() override { line_.Give(); }
  void Take() override { line_.Take(); }

 private:
  BareLine line_{kRecordSize};
};

// A driver that waits by asking for the length of the queue and sleeping.
class SleepyLine final : public Handover {
 public:
  void OpenTaker() override { port_.OpenPort(line_.path().c_str(), 115200); }
  void Give() override { line_.Give(); }
  void Take() override {
    std::array<char, kRecordSize> record;
    while (port_.InputQueueLength() < kRecordSize) SerialPort::Pause(1);
    port_.Read(record.data(), kRecordSize);
  }

 private:
  BareLine line_{kRecordSize};
  SerialPort port_;
};

void WireToClient(Report& report, const Row& row, const char* what, double limit) {
  const std::string item = std::string(row.device) + what;
  RestedLine bare;
  Tracker tracker(row);
  const HandoverFigures figures = MeasureHandover(
      {.placement = Placement::OtherCpu, .runs = 3, .cycles = 25, .blockSize = 15}, bare, tracker);
  report.Ratio(item, figures.arrival, "ns", limit);
}

// Samples records that come in one piece each, without a waiting client.
int SampleCounted(const Row& row) {
  Tracker tracker(row);
  tracker.OpenGiver();
  const auto reader = OpenReader();
  int published = FrameCount(*reader);
  tracker.Prepare();
  const int first = tracker.sent();
  BeginCount();
  for (int i = 0; i < kCounted; ++i) {
    tracker.Give();
    AwaitFrames(*reader, ++published);
    tracker.Prepare();
  }
  EndCount();
  return tracker.sent() - first;
}

// Traced, because a thread's count of its context switches includes those in which the kernel
// passes on the bytes of the line.
void Calls(Report& report, const Row& row) {
  const Common<int> records;
  const auto calls = CountSystemCalls([&] { *records = SampleCounted(row); });
  const std::string item = std::string(row.device) + ": wake-ups of its reader, a record";
  if (!calls || *records == 0) return report.Undecided(item, "tracing is not permitted");
  report.AtMost(item, static_cast<double>(calls->busiestWaits) / *records, "", 1.1);
  // The wake of the record stream's readers, who cannot announce themselves, is counted apart. Four
  // times a second a streaming driver looks for old records: 0.03 calls a record at 120 Hz.
  constexpr double kStreamWake = 1;
  report.AtMost(std::string(row.device) + ": system calls a record, without the stream's wake",
                PerOperation(calls->busiest, *records) - kStreamWake, "",
                row.streaming ? 3.1 : 5.1);
}

void Sleepy(Report& report) {
  Tracker tracker(kRows[0]);
  SleepyLine sleepy;
  const HandoverFigures figures = MeasureHandover(
      {.placement = Placement::OtherCpu, .cycles = 20, .blockSize = 15}, tracker, sleepy);
  report.AtLeast("a loop of 1 ms sleeps, over the whole road of a FASTRAK",
                 figures.arrival.ratio.middle, "", 5);
}

void ForEachDevice(Report& report, void (*measure)(Report& report, const Row& row)) {
  ThrowAwayErrors();  // the engine's start-up lines
  for (const Row& row : kRows) {
    try {
      measure(report, row);
    } catch (const std::runtime_error& why) {
      report.Undecided(row.device, why.what());
    }
  }
}

// Records come milliseconds apart. So the CPU that waits for one has gone to sleep, whether we wait
// or a bare poll.
void MeasureAsleep(Report& report) {
  ForEachDevice(report, [](Report& all, const Row& row) {
    WireToClient(all, row, ": wire to client, over poll + read", row.streaming ? 1.35 : 1.6);
    Calls(all, row);
  });
  Sleepy(report);
}

void MeasureAwake(Report& report) {
  const WakefulCpus wakeful;
  report.Note(wakeful.note());
  ForEachDevice(report, [](Report& all, const Row& row) {
    WireToClient(all, row, ": the same with CPUs kept awake", 2);
  });
}

void Measure(Report& report) {
  MeasureAsleep(report);
  MeasureAwake(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() {
  return kinetrel::bench::RunBenchmark("bench-wire", kinetrel::bench::Measure,
                                       kinetrel::bench::IdleCpus::AsEver);
}

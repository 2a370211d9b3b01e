// What the system costs while it runs at a tracker's rate, and while it has nothing to do.
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "bench/machine.h"
#include "bench/publication.h"
#include "engine/tracker_engine.h"
#include "platform/signals.h"
#include "platform/thread.h"

namespace kinetrel::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// ---- Many sensors ------------------------------------------------------------------------------

constexpr int kRate = 120;  // Hz

// Wakes 120 times a second, whatever the work in between took.
class Pace {
 public:
  void Wait() {
    next_ += std::chrono::microseconds(1'000'000 / kRate);
    std::this_thread::sleep_until(next_);
  }

 private:
  std::chrono::steady_clock::time_point next_ = std::chrono::steady_clock::now();
};

// A tracker of 32 sensors that costs nothing to read.
class ManySensorDevice final : public TrackerDevice {
 public:
  ManySensorDevice() { AllocateSensors(kPoseSlots); }
  int OpenPortNumber(int, int baud) override { return OpenPort("~", baud); }
  BootResult Boot(int) override { return kBooted; }
  int QueryStatus(char*, int) override { return 0; }
  int GetFrameRate() override { return kRate; }
  void Poll() override {}
  void StartContinuous() override {}
  unsigned ReadFrame(double* sampleTime) override {
    pace_.Wait();
    *sampleTime = ElapsedSeconds();
    return ~0U;
  }

 private:
  Pace pace_;
};

void SampleManySensors() {
  ThrowAwayOutput();
  DeviceFactory factory;
  factory.device = [](int) { return std::make_unique<ManySensorDevice>(); };
  TrackerEngine engine(factory);
  StartConfig config;
  config.shmDevice = kBenchDevice;
  config.sensorMask = ~0U;
  engine.Configure(config);
  static std::atomic<int> stopRequest = 0;
  CatchStopSignals(stopRequest);
  if (engine.Open(2, 1, false) == OpenResult::Opened) engine.StartSampling();
  while (stopRequest == 0 && !engine.WaitSampling(milliseconds(500))) {
  }
}

void RunEmptyLoop() {
  RaiseToTimeCritical().Ok();
  for (Pace pace;;) pace.Wait();
}

// CPU of `process` over half a second, in microseconds a frame. Both loops run all the time, so
// the block before and after has the same machine.
Block CpuBlock(pid_t process) {
  return [process] {
    const double before = CpuSecondsOf(process);
    std::this_thread::sleep_for(milliseconds(500));
    return std::vector{(CpuSecondsOf(process) - before) * 1e6 / (kRate / 2.0)};
  };
}

void ManySensors(Report& report) {
  const auto reader = OpenReader();
  const Child empty(RunEmptyLoop);
  Child sampling(SampleManySensors);
  AwaitFrames(*reader, kRate * kPoseSlots);
  const int before = FrameCount(*reader);
  const std::vector<Paired> cost = Interleave(12, CpuBlock(empty.pid()), CpuBlock(sampling.pid()));
  const double frames = (FrameCount(*reader) - before) / (13.0 * kPoseSlots);
  report.Note(std::to_string(frames) + " frames a second with 32 sensors");
  report.Ratio("CPU of 32 sensors at 120 Hz, over an empty loop", cost[0], "us a frame", 3);
  sampling.End();
}

// ---- The programs as a user runs them ----------------------------------------------------------

constexpr seconds kObserved{4};

// What a process did in a while.
struct Account {
  double seconds = 0;
  double cpuSeconds = 0;
  double wakeUps = 0;
  int frames = 0;  // published meanwhile
};

Account Observe(const Child& program, SharedTrackReader& reader) {
  const int frames = FrameCount(reader);
  const double cpu = CpuSecondsOf(program.pid());
  const long wakeUps = WakeUpsOf(program.pid());
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(kObserved);
  const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
  return {passed.count(), CpuSecondsOf(program.pid()) - cpu,
          static_cast<double>(WakeUpsOf(program.pid()) - wakeUps), FrameCount(reader) - frames};
}

void Programs(Report& report) {
  const std::string slot = std::to_string(kBenchDevice + 1);
  const auto reader = OpenReader();
  Child watch([&] { RunProgram("kinetrel-watch", {"--block", "--slot", slot}); });
  std::this_thread::sleep_for(seconds(1));  // it has started, and waits
  const Account waiting = Observe(watch, *reader);
  report.AtMost("wake-ups of kinetrel-watch without a writer", waiting.wakeUps / waiting.seconds,
                "/s", 5);

  Child tracker([&] { RunProgram("kinetrel", {"-d8", "-s1", "-z-", "-w", slot}); });
  AwaitFrames(*reader, 60);
  const Account sampling = Observe(tracker, *reader);
  report.AtMost("CPU of one sensor at 60 Hz, of one core",
                100 * sampling.cpuSeconds / sampling.seconds, "%", 1);
  report.AtMost("wake-ups of kinetrel beyond its frames",
                (sampling.wakeUps - sampling.frames) / sampling.seconds, "/s", 5);
  const Account watching = Observe(watch, *reader);
  report.AtMost("wake-ups a frame, of kinetrel-watch", watching.wakeUps / watching.frames, "", 1.1);
  tracker.End();
  watch.End();
}

void Measure(Report& report) {
  ManySensors(report);
  Programs(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-load", kinetrel::bench::Measure); }

// What steering an engine costs: a call that needs no device, and calls from many threads while a
// device of 240 Hz is sampled.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/harness.h"
#include "bench/machine.h"
#include "devices/device_factory.h"
#include "engine/tracker_engine.h"
#include "platform/mutex.h"
#include "publish/shared_track_reader.h"

namespace kinetrel::bench {
namespace {

constexpr int kRate = 240;  // Hz
constexpr double kFrameMilliseconds = 1000.0 / kRate;
constexpr int kThreads = 4;
constexpr int kCalls = 2500;  // of each

// Delivers a frame every 1/240 s, on time whatever happened before, and counts them.
class PacedDevice final : public TrackerDevice {
 public:
  explicit PacedDevice(std::atomic<int>& frames) : frames_(frames) { AllocateSensors(1); }
  int OpenPortNumber(int, int) override { return 1; }
  BootResult Boot(int) override {
    booted_ = true;
    return kBooted;
  }
  int QueryStatus(char*, int) override { return 0; }
  unsigned ReadFrame(double* sampleTime) override {
    next_ += ClockTicksPerSecond() / kRate;
    if (next_ < ClockTicks() - ClockTicksPerSecond()) next_ = ClockTicks();
    while (ClockTicks() < next_) std::this_thread::sleep_for(std::chrono::microseconds(100));
    *sampleTime = ElapsedSeconds();
    ++frames_;
    return 1;
  }
  void Poll() override {}
  int GetFrameRate() override { return kRate; }

 private:
  std::atomic<int>& frames_;
  std::int64_t next_ = 0;
};

class Sampled {
 public:
  Sampled() : engine_(Factory()) {
    StartConfig config;
    config.shmDevice = kBenchDevice;
    engine_.Configure(config);
    if (engine_.Open(2, 1, false) != OpenResult::Opened || !reader_.OpenOnly(0)) {
      throw std::runtime_error("the engine does not open");
    }
  }
  TrackerEngine& engine() { return engine_; }
  int Read() const { return frames_; }
  int Published() {
    SharedTrackBlock block{};
    reader_.Copy(block, Milliseconds(1000));
    return block.frameCount;
  }

 private:
  DeviceFactory Factory() {
    DeviceFactory factory;
    factory.device = [this](int) { return std::make_unique<PacedDevice>(frames_); };
    return factory;
  }

  std::atomic<int> frames_ = 0;
  SharedTrackReader reader_{kBenchDevice};
  TrackerEngine engine_;
};

void ReadingAnAttribute(Report& report) {
  Sampled sampled;
  PriorityMutex mutex;
  const auto bare = TimedBlock(2000, [&mutex] { const std::lock_guard held(mutex); });
  const auto call = TimedBlock(2000, [&sampled] {
    int value = 0;
    sampled.engine().GetAttributeInt(static_cast<int>(EngineAttribute::SharedMemoryId), &value);
  });
  report.Ratio("reading an attribute that needs no device, over lock and unlock",
               Interleave(200, bare, call)[0], "ns", 2);
}

// How long each of many calls took that need no device or need it, in frames.
std::vector<double> TimeCalls(TrackerEngine& engine) {
  std::vector<double> frames;
  for (int i = 0; i < kCalls; ++i) {
    int value = 0;
    const std::int64_t start = ClockTicks();
    engine.GetAttributeInt(
        static_cast<int>(i % 2 == 0 ? EngineAttribute::Units : EngineAttribute::Query), &value);
    const auto ticks = static_cast<double>(ClockTicks() - start);
    frames.push_back(ticks * kNanosecondsPerTick / 1e6 / kFrameMilliseconds);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return frames;
}

void CallsWhileSampling(Report& report) {
  Sampled sampled;
  sampled.engine().StartSampling();
  std::array<std::vector<double>, kThreads> times;
  std::vector<std::thread> threads;
  for (std::vector<double>& mine : times) {
    threads.emplace_back([&sampled, &mine] { mine = TimeCalls(sampled.engine()); });
  }
  for (std::thread& thread : threads) thread.join();
  sampled.engine().StopSampling(true);
  std::vector<double> all;
  for (const std::vector<double>& mine : times) all.insert(all.end(), mine.begin(), mine.end());
  report.AtMost("frames lost over 10,000 calls from 4 threads at 240 Hz",
                sampled.Read() - sampled.Published(), "", 0);
  report.AtMost("99% of those calls took, in frames", PercentileOf(all, 99), "", 1);
  const auto late = std::ranges::count_if(all, [](double frames) { return frames > 1; });
  char text[80];
  std::snprintf(text, sizeof text, "%d took longer than a frame, the longest %.2f frames",
                static_cast<int>(late), *std::ranges::max_element(all));
  report.Note(text);
}

void Measure(Report& report) {
  ThrowAwayErrors();  // the engine's start-up lines
  ReadingAnAttribute(report);
  CallsWhileSampling(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-control", kinetrel::bench::Measure); }

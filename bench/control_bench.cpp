// What steering an engine costs: a call that needs no device, and calls from many threads while a
// device of 240 Hz is sampled.
#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "bench/harness.h"
#include "bench/machine.h"
#include "devices/device_factory.h"
#include "engine/tracker_engine.h"
#include "platform/priority_mutex.h"
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
    engine_.Configure([](StartConfig& config) {
      config.shmDevice = kBenchDevice;
      return true;
    });
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

// The longest of many calls that need no device and of many that do, in ms.
double LongestCall(TrackerEngine& engine) {
  std::int64_t longest = 0;
  for (int i = 0; i < kCalls; ++i) {
    int value = 0;
    const std::int64_t start = ClockTicks();
    engine.GetAttributeInt(
        static_cast<int>(i % 2 == 0 ? EngineAttribute::Units : EngineAttribute::Query), &value);
    longest = std::max(longest, ClockTicks() - start);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return static_cast<double>(longest) * kNanosecondsPerTick / 1e6;
}

void CallsWhileSampling(Report& report) {
  Sampled sampled;
  sampled.engine().StartSampling();
  std::array<double, kThreads> longest{};
  std::vector<std::thread> threads;
  for (double& mine : longest) {
    threads.emplace_back([&sampled, &mine] { mine = LongestCall(sampled.engine()); });
  }
  for (std::thread& thread : threads) thread.join();
  sampled.engine().StopSampling(true);
  report.AtMost("frames lost over 10,000 calls from 4 threads at 240 Hz",
                sampled.Read() - sampled.Published(), "", 0);
  report.AtMost("the longest of those calls, in frames",
                *std::max_element(longest.begin(), longest.end()) / kFrameMilliseconds, "", 1);
}

void Measure(Report& report) {
  ThrowAwayErrors();  // the engine's start-up lines
  ReadingAnAttribute(report);
  CallsWhileSampling(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-control", kinetrel::bench::Measure); }

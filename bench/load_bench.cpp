// What the system costs while it runs at a tracker's rate, and while it has nothing to do.
#include <chrono>
#include <stdexcept>
#include <thread>

#include "bench/machine.h"
#include "bench/publication.h"

namespace kinetrel::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// ---- The publishing loop -----------------------------------------------------------------------

constexpr int kRate = 120;  // Hz
constexpr int kFramesInBlock = 30;

// CPU microseconds of a frame in which `work` is done.
Block PacedBlock(std::function<void()> work) {
  return [work = std::move(work)] {
    const double before = OwnThreadCpuSeconds();
    auto next = std::chrono::steady_clock::now();
    for (int frame = 0; frame < kFramesInBlock; ++frame) {
      next += std::chrono::microseconds(1'000'000 / kRate);
      std::this_thread::sleep_until(next);
      work();
    }
    return std::vector{(OwnThreadCpuSeconds() - before) * 1e6 / kFramesInBlock};
  };
}

void ManySensors(Report& report) {
  const auto writer = OpenWriter();
  const auto publishAll = [&] {
    for (int sensor = 0; sensor < kPoseSlots; ++sensor) PublishSample(*writer, kBin, sensor);
  };
  const std::vector<Paired> cost = Interleave(16, PacedBlock([] {}), PacedBlock(publishAll));
  report.Ratio("CPU of 32 sensors at 120 Hz, over an empty loop", cost[0], "us a frame", 3);
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

int FrameCount(SharedTrackReader& reader) {
  SharedTrackBlock copy{};
  if (!reader.Copy(copy, Milliseconds(1000))) throw std::runtime_error("the bin cannot be read");
  return copy.frameCount;
}

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

void AwaitFrames(SharedTrackReader& reader, int atLeast) {
  for (int i = 0; i < 1000 && FrameCount(reader) < atLeast; ++i) {
    std::this_thread::sleep_for(milliseconds(10));
  }
  if (FrameCount(reader) < atLeast) throw std::runtime_error("kinetrel publishes nothing");
}

void Programs(Report& report) {
  const std::string slot = std::to_string(kBenchDevice + 1);
  const auto reader = OpenReader();
  const Child watch([&] { RunProgram("kinetrel-watch", {"--slot", slot}); });
  std::this_thread::sleep_for(seconds(1));  // it has started, and waits
  const Account waiting = Observe(watch, *reader);
  report.AtMost("wake-ups of kinetrel-watch without a writer", waiting.wakeUps / waiting.seconds,
                "/s", 5);

  const Child tracker([&] { RunProgram("kinetrel", {"-d8", "-s1", "-z-", "-w", slot}); });
  AwaitFrames(*reader, 60);
  const Account sampling = Observe(tracker, *reader);
  report.AtMost("CPU of one sensor at 60 Hz, of one core",
                100 * sampling.cpuSeconds / sampling.seconds, "%", 1);
  report.AtMost("wake-ups of kinetrel beyond its frames",
                (sampling.wakeUps - sampling.frames) / sampling.seconds, "/s", 5);
  const Account watching = Observe(watch, *reader);
  report.AtMost("wake-ups a frame, of kinetrel-watch", watching.wakeUps / watching.frames, "", 1.1);
}

void Measure(Report& report) {
  ManySensors(report);
  Programs(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-load", kinetrel::bench::Measure); }

// Trackers as a user runs them, at their full rate: an emulated FASTRAK of four stations, and a
// Liberty behind its library.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <thread>

#include "bench/far_end.h"
#include "bench/floors.h"
#include "bench/machine.h"
#include "bench/publication.h"
#include "drivers/driver_table.h"
#include "emulate/motion.h"
#include "platform/thread.h"

namespace kinetrel::bench {
namespace {

using std::chrono::steady_clock;
using DoubleSeconds = std::chrono::duration<double>;

constexpr double kMilliseconds = 1000;

// Starts kinetrel with its arguments, and kinetrel-emulate if it has some.
class Programs {
 public:
  Programs(const std::vector<std::string>& emulated, std::vector<std::string> arguments) {
    if (!emulated.empty()) {
      emulator_.emplace([&] { RunProgram("kinetrel-emulate", WithLink(emulated)); });
      AwaitLink();
    }
    arguments.insert(arguments.end(), {"-p1", "-w", std::to_string(kBenchDevice + 1)});
    tracker_.emplace([&] {
      ::setenv("KINETREL_COM1", link_.c_str(), 1);
      RunProgram("kinetrel", arguments);
    });
  }
  ~Programs() {
    tracker_->End();
    if (emulator_) emulator_->End();
    ::unlink(link_.c_str());
  }
  Programs(const Programs&) = delete;
  Programs& operator=(const Programs&) = delete;

  // Of the tracker's program, while it publishes for some seconds.
  void JudgeCpu(Report& report, SharedTrackReader& reader, const std::string& item, double limit) {
    constexpr std::chrono::seconds kObserved{4};
    const int frames = FrameCount(reader);
    const double cpu = CpuSecondsOf(tracker_->pid());
    const auto start = steady_clock::now();
    std::this_thread::sleep_for(kObserved);
    const double seconds = DoubleSeconds(steady_clock::now() - start).count();
    report.AtMost(item, 100 * (CpuSecondsOf(tracker_->pid()) - cpu) / seconds, "%", limit);
    char text[80];
    std::snprintf(text, sizeof text, "%.1f frames a second",
                  (FrameCount(reader) - frames) / seconds);
    report.Note(text);
  }

 private:
  std::vector<std::string> WithLink(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--link", link_});
    return arguments;
  }

  void AwaitLink() const {
    const Deadline deadline(Milliseconds(5000));
    while (::access(link_.c_str(), F_OK) != 0) {
      if (deadline.Passed()) throw std::runtime_error("kinetrel-emulate offers no port");
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  const std::string link_ = "/tmp/kinetrel-bench-" + std::to_string(::getpid());
  std::optional<Child> emulator_;
  std::optional<Child> tracker_;
};

// ---- FASTRAK -----------------------------------------------------------------------------------

constexpr double kCycleRate = 30;  // Hz, each of four stations

// Least age of the first station's poses while `time` passes, in seconds from an arbitrary start:
// other work of the machine may delay any single one.
double LeastAge(SharedTrackReader& reader, steady_clock::time_point begin, double time) {
  double least = 1e9;
  SharedTrackBlock block{};
  const auto end = steady_clock::now() + DoubleSeconds(time);
  while (steady_clock::now() < end) {
    reader.WaitForFrame(block.frameCount, Milliseconds(100));
    const double now = DoubleSeconds(steady_clock::now() - begin).count();
    if (!reader.Copy(block, Milliseconds(1000))) continue;
    const auto& pose = block.poses[0];
    least = std::min(least, now - static_cast<double>(RampFrame(pose[0], pose[2])) / kCycleRate);
  }
  return least;
}

void FourStations(Report& report) {
  constexpr double kSpan = 5;
  constexpr std::chrono::seconds kBetween{60};
  const auto reader = OpenReader();
  Programs programs({"fastrak", "--motion", "ramp"}, {"-d2", "-s15"});
  AwaitFrames(*reader, 120);
  const auto begin = steady_clock::now();
  const double first = LeastAge(*reader, begin, kSpan);
  programs.JudgeCpu(report, *reader, "CPU of four FASTRAK stations at 120 records a second", 2);
  std::this_thread::sleep_until(begin + kBetween);
  const double last = LeastAge(*reader, begin, kSpan);
  report.AtMost("how much older their poses are after a minute", kMilliseconds * (last - first),
                "ms", kMilliseconds / kCycleRate / 4);
}

// ---- Liberty -----------------------------------------------------------------------------------

constexpr int kLiberty = 10;
constexpr int kFrames = 1200;
constexpr auto kPeriod = std::chrono::nanoseconds(1'000'000'000 / 240);
constexpr double kMostLate = 1.5;  // ms, median
constexpr double kMostCpu = 3;     // % of a core

bool IsFrame(std::span<const std::byte> bytes) {
  return bytes.size() > 3 && bytes[0] == std::byte{'L'} && bytes[3] == std::byte{'C'};
}

// CPU seconds of the threads that the engine has in this process.
double EngineCpuSeconds() { return CpuSecondsOf(::getpid()) - OwnThreadCpuSeconds(); }

// The parts of a frame's way, ms.
struct Way {
  std::vector<double> whole;    // from the library having it to the client having it
  std::vector<double> driving;  // from the driver having it to its publication
  steady_clock::time_point start = steady_clock::now();
  double cpuAtStart = EngineCpuSeconds();

  void Tell(Report& report, const std::string& liberty, double handover) const {
    const double seconds = DoubleSeconds(steady_clock::now() - start).count();
    report.AtMost(liberty + ": CPU, of a core", 100 * (EngineCpuSeconds() - cpuAtStart) / seconds,
                  "%", kMostCpu);
    report.AtMost(liberty + ": to the client, median", MedianOf(whole), "ms", kMostLate);
    char text[120];
    const double driver = MedianOf(driving);
    std::snprintf(
        text, sizeof text,
        "%.0f a second; %.3f ms until looked for, %.3f until published, %.3f to the client",
        static_cast<double>(whole.size()) / seconds, MedianOf(whole) - driver - handover, driver,
        handover);
    report.Note(text);
  }
};

// From a publication to the moment the client has it, ms.
double Handing() {
  BareWake bare;
  Publication publication;
  return MeasureHandover({.cycles = 20}, bare, publication).arrival.subject / 1e6;
}

// A frame is the library's as soon as its last byte is on the line.
void OverALine(Report& report, double handover) {
  ::setenv("KINETREL_PDI_SERIAL", "1", 1);
  FarEnd farEnd(*FindDevice("liberty"));
  const auto engine = OpenTracker(farEnd, kLiberty, true);
  const auto reader = OpenReader();
  engine->StartSampling();
  farEnd.AwaitRecord(IsFrame);
  SharedTrackBlock block{};
  // The driver drops what comes while the stream starts.
  const Deadline started(Milliseconds(5000));
  while (!started.Passed() && !reader->WaitForFrame(0, Milliseconds(20))) {
    farEnd.SendRecord();
    farEnd.AwaitRecord(IsFrame);
  }
  reader->Copy(block, Milliseconds(1000));
  Way way;
  auto next = steady_clock::now();
  for (int i = 0; i < kFrames; ++i) {
    std::this_thread::sleep_until(next += kPeriod);
    const auto sent = steady_clock::now();
    farEnd.SendRecord();
    if (!reader->WaitForFrame(block.frameCount, Milliseconds(2000))) {
      throw std::runtime_error("a frame of the Liberty does not arrive");
    }
    reader->Copy(block, Milliseconds(1000));
    way.whole.push_back(kMilliseconds * DoubleSeconds(steady_clock::now() - sent).count());
    way.driving.push_back(kMilliseconds * (block.publishTime - block.sampleTime));
    farEnd.AwaitRecord(IsFrame);
  }
  way.Tell(report, "Liberty on a line at 240 Hz", handover);
}

// The substitute has its frames by the clock, from a start that is its own: a frame's lateness over
// the one that was met first. The looks are a millisecond apart and the frames are not, so that one
// is met within a sixth of a millisecond.
void OfKnownMotion(Report& report, double handover) {
  constexpr double kLongestFirst = 1.0 / 6;
  ::unsetenv("KINETREL_PDI_SERIAL");
  TrackerEngine engine(AllDrivers());
  StartConfig config;
  config.shmDevice = kBenchDevice;
  config.streaming = 1;
  engine.Configure(config);
  if (engine.Open(kLiberty, 1, false) != OpenResult::Opened) {
    throw std::runtime_error("the Liberty does not open");
  }
  const auto reader = OpenReader();
  engine.StartSampling();
  AwaitFrames(*reader, 10);
  Way way;
  SharedTrackBlock block{};
  const auto begin = steady_clock::now();
  for (int i = 0; i < kFrames; ++i) {
    reader->WaitForFrame(block.frameCount, Milliseconds(2000));
    reader->Copy(block, Milliseconds(1000));
    const double now = DoubleSeconds(steady_clock::now() - begin).count();
    const auto& pose = block.poses[0];
    const double due =
        static_cast<double>(RampFrame(pose[0], pose[2])) * DoubleSeconds(kPeriod).count();
    way.whole.push_back(kMilliseconds * (now - due));
    way.driving.push_back(kMilliseconds * (block.publishTime - block.sampleTime));
  }
  const double first = *std::min_element(way.whole.begin(), way.whole.end());
  const double least = kLongestFirst + MedianOf(way.driving) + handover;
  for (double& late : way.whole) late += least - first;
  way.Tell(report, "Liberty of known motion at 240 Hz", handover);
}

// What waking a thousand times a second costs a thread of that priority.
void EmptyLoop(Report& report) {
  constexpr std::chrono::seconds kObserved{2};
  const Child empty([] {
    RaiseToTimeCritical().Ok();
    for (auto next = steady_clock::now();;) {
      std::this_thread::sleep_until(next += std::chrono::milliseconds(1));
    }
  });
  const double cpu = CpuSecondsOf(empty.pid());
  std::this_thread::sleep_for(kObserved);
  char text[80];
  std::snprintf(text, sizeof text, "an empty loop of 1 ms takes %.2f %% of a core here",
                100 * (CpuSecondsOf(empty.pid()) - cpu) / DoubleSeconds(kObserved).count());
  report.Note(text);
}

void Liberty(Report& report) {
  EmptyLoop(report);
  ::setenv("KINETREL_PDI", KINETREL_PDI_SUBSTITUTE, 1);
  const double handover = Handing();
  OverALine(report, handover);
  OfKnownMotion(report, handover);
}

void Measure(Report& report) {
  ThrowAwayErrors();  // the engine's start-up lines
  Liberty(report);
  FourStations(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-trackers", kinetrel::bench::Measure); }

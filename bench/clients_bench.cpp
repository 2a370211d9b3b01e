// What publishing to waiting clients costs, how soon they have their copies, and whether they get
// every frame.
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <thread>

#include "bench/floors.h"
#include "bench/machine.h"
#include "bench/publication.h"

namespace kinetrel::bench {
namespace {

constexpr int kManyClients = 16;
constexpr int kRate = 240;  // Hz

// ---- One after the other, timed ----------------------------------------------------------------

HandoverFigures Against(const HandoverPlan& plan) {
  BareWake bare;
  Publication publication;
  return MeasureHandover(plan, bare, publication);
}

void ClientOnAnotherCpu(Report& report) {
  const HandoverFigures figures = Against({.placement = Placement::OtherCpu, .cycles = 150});
  report.Ratio("publishing a sample, a client waits on another CPU", figures.call, "ns", 1.25);
  report.Ratio("until the client has its copy, on another CPU", figures.arrival, "ns", 1.25);
}

// The call is timed with the client running after it, the arrival with the client running at once:
// on one CPU either would hide in the other.
void ClientOnTheSameCpu(Report& report) {
  const HandoverFigures call = Against({.placement = Placement::SameCpu, .cycles = 150});
  report.Ratio("publishing a sample, a client waits on the same CPU", call.call, "ns", 1.25);
  const HandoverFigures arrival =
      Against({.placement = Placement::SameCpu, .takersFirst = true, .cycles = 150});
  report.Ratio("until the client has its copy, on the same CPU", arrival.arrival, "ns", 1.25);
}

void ManyClients(Report& report) {
  const HandoverFigures figures = Against(
      {.placement = Placement::Spread, .takers = kManyClients, .cycles = 60, .blockSize = 15});
  report.Ratio("until the last of 16 clients has its copy", figures.arrival, "ns", 1.4);
}

// ---- System calls ------------------------------------------------------------------------------

constexpr int kCounted = 100;

// The counted calls of the giver, each with its client asleep.
class CountedPublication final : public Handover {
 public:
  void OpenGiver() override { publication_.OpenGiver(); }
  void OpenTaker() override { publication_.OpenTaker(); }
  void CloseGiver() override { publication_.CloseGiver(); }
  void Take() override { publication_.Take(); }
  void Rehearse() override { publication_.Rehearse(); }
  void Give() override {
    BeginCount();
    publication_.Give();
    EndCount();
  }

 private:
  Publication publication_;
};

void SystemCallsOfPublishing(Report& report) {
  const std::string item = "system calls of a publication, one client waiting";
  const auto calls = CountSystemCalls([] {
    BareWake bare;
    CountedPublication publication;
    MeasureHandover({.cycles = 3, .blockSize = kCounted / 4}, bare, publication);
  });
  if (!calls) return report.Undecided(item, "tracing a child is not permitted here");
  const bool onlyFutex = calls->size() == 1 && calls->begin()->first == SYS_futex;
  report.AtMost(item + (onlyFutex ? ", all futex" : ", not all futex"),
                PerOperation(*calls, kCounted), "", 1);
}

// ---- At a tracker's rate -----------------------------------------------------------------------

struct Tally {
  int seen = 0;       // frames that the client had a copy of
  long switches = 0;  // of the client's context meanwhile
};

struct Audience {
  std::array<Tally, kManyClients> clients;
  std::atomic<int> ready = 0;
};

// A client's life: it waits, and copies what is new, until the writer has gone.
Tally Watch(Audience& audience) {
  Tally tally;
  SharedTrackBlock copy{};
  const auto reader = OpenReader();
  ++audience.ready;
  while (!reader->WaitForFrame(0, Milliseconds(1000))) {
  }
  const long before = OwnSwitches();
  do {
    reader->Copy(copy, kForever);
    ++tally.seen;
    // The last frame is followed by nothing but the writer's leaving.
  } while (copy.writerPresent == 1 && reader->WaitForFrame(copy.frameCount, Milliseconds(500)));
  tally.switches = OwnSwitches() - before;
  return tally;
}

void PublishAtRate(int frames) {
  const auto writer = OpenWriter();
  auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
  for (int frame = 1; frame <= frames; ++frame) {
    std::this_thread::sleep_until(next);
    next += std::chrono::microseconds(1'000'000 / kRate);
    PublishSample(*writer, kBin, 0);
  }
}

void AtRate(Report& report, std::size_t clients, int frames) {
  const Common<Audience> audience;
  std::deque<Child> children;
  for (std::size_t i = 0; i < clients; ++i) {
    children.emplace_back([&, i] { audience->clients[i] = Watch(*audience); });
  }
  while (audience->ready < static_cast<int>(clients)) std::this_thread::yield();
  RunAtPriority(10);
  PublishAtRate(frames);
  RunAtNormalPriority();
  for (Child& child : children) child.Join();

  const auto end = audience->clients.begin() + static_cast<std::ptrdiff_t>(clients);
  const int fewest = std::min_element(audience->clients.begin(), end, [](auto& a, auto& b) {
                       return a.seen < b.seen;
                     })->seen;
  const std::string whose = clients == 1 ? "a client's" : "the least served of 16 clients'";
  report.AtLeast("share of frames at 240 Hz, " + whose, 100.0 * fewest / frames, "%", 99);
  if (clients != 1) return;
  const Tally& one = audience->clients[0];
  report.AtMost("context switches a frame at 240 Hz, a client's",
                static_cast<double>(one.switches) / one.seen, "", 1.1);
}

void Measure(Report& report) {
  if (CpuCount() > 1) ClientOnAnotherCpu(report);
  ClientOnTheSameCpu(report);
  SystemCallsOfPublishing(report);
  AtRate(report, 1, 3 * kRate);
  ManyClients(report);
  AtRate(report, kManyClients, 3 * kRate);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-clients", kinetrel::bench::Measure); }

// What publishing to waiting clients costs, how soon they have their copies, and whether they get
// every frame.
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <stdexcept>
#include <thread>

#include "bench/floors.h"
#include "bench/machine.h"
#include "bench/publication.h"
#include "bench/tracing.h"

namespace kinetrel::bench {
namespace {

constexpr int kManyClients = 16;
constexpr int kRate = 240;  // Hz
constexpr double kLeastShare = 99;

// ---- One after the other, timed ----------------------------------------------------------------

HandoverFigures Against(const HandoverPlan& plan) {
  BareWake bare;
  Publication publication;
  return MeasureHandover(plan, bare, publication);
}

void ClientOnAnotherCpu(Report& report) {
  const HandoverFigures figures =
      Against({.placement = Placement::OtherCpu, .runs = 3, .cycles = 50});
  report.Ratio("publishing a sample, a client waits on another CPU", figures.call, "ns", 1.2);
  report.Ratio("until the client has its copy, on another CPU", figures.arrival, "ns", 1.2);
}

// The call is timed with the client running after it, the arrival with the client running at once:
// on one CPU either would hide in the other.
void ClientOnTheSameCpu(Report& report) {
  const HandoverFigures call = Against({.placement = Placement::SameCpu, .runs = 3, .cycles = 50});
  report.Ratio("publishing a sample, a client waits on the same CPU", call.call, "ns", 1.2);
  const HandoverFigures arrival =
      Against({.placement = Placement::SameCpu, .takersFirst = true, .runs = 3, .cycles = 50});
  report.Ratio("until the client has its copy, on the same CPU", arrival.arrival, "ns", 1.2);
}

void ManyClients(Report& report) {
  const HandoverFigures figures = Against({.placement = Placement::Spread,
                                           .takers = kManyClients,
                                           .runs = 3,
                                           .cycles = 20,
                                           .blockSize = 15});
  report.Ratio("until the last of 16 clients has its copy", figures.arrival, "ns", 1.25);
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
  const bool onlyFutex = calls->own.size() == 1 && calls->own.begin()->first == SYS_futex;
  report.AtMost(item + (onlyFutex ? ", all futex" : ", not all futex"),
                PerOperation(calls->own, kCounted), "", 1);
}

// ---- At a tracker's rate -----------------------------------------------------------------------

struct Tally {
  std::atomic<bool> ready = false;
  std::atomic<int> seen = 0;            // frames that the client took
  std::atomic<long> firstSwitches = 0;  // of its context, when it took the first one
  std::atomic<long> lastSwitches = 0;   // and the last one
};
using Audience = std::array<Tally, kManyClients>;

void TakeAll(Handover& handover, Tally& tally) {
  handover.OpenTaker();
  tally.ready = true;
  for (;;) {
    handover.Take();
    tally.lastSwitches = OwnSwitches();
    if (++tally.seen == 1) tally.firstSwitches = tally.lastSwitches.load();
  }
}

// Waits until every client waits for a frame; throws if one does not.
void LetAllWait(const Audience& audience, const std::deque<Child>& clients) {
  const auto waits = [&](std::size_t i) { return audience[i].ready && clients[i].Sleeps(); };
  const Deadline deadline(Milliseconds(10'000));
  for (std::size_t i = 0; i < clients.size(); ++i) {
    while (!waits(i)) {
      if (deadline.Passed()) throw std::runtime_error("a client is silent");
      SleepFor(Milliseconds(1));
    }
  }
}

void GiveAtRate(Handover& handover) {
  RunAtPriority(10);
  auto next = std::chrono::steady_clock::now();
  for (int frame = 0; frame < kRate; ++frame) {
    next += std::chrono::microseconds(1'000'000 / kRate);
    std::this_thread::sleep_until(next);
    handover.Give();
  }
  RunAtNormalPriority();
}

struct Service {
  double share = 0;     // of the frames, in percent, that the least served client took
  double switches = 0;  // of the first client, for each frame it took
};

// One second of frames.
Service Serve(Handover& handover, std::size_t clients) {
  const Common<Audience> audience;
  std::deque<Child> children;
  for (std::size_t i = 0; i < clients; ++i) {
    children.emplace_back([&, i] { TakeAll(handover, (*audience)[i]); });
  }
  handover.OpenGiver();
  LetAllWait(*audience, children);
  GiveAtRate(handover);
  LetAllWait(*audience, children);
  int fewest = kRate;
  for (std::size_t i = 0; i < clients; ++i) fewest = std::min(fewest, (*audience)[i].seen.load());
  const Tally& first = audience->front();
  children.clear();
  handover.CloseGiver();
  const auto switches = static_cast<double>(first.lastSwitches - first.firstSwitches);
  return {100.0 * fewest / kRate, switches / std::max(1, first.seen - 1)};
}

// In turn with bare wakes: if those are late too, the machine is the cause.
void AtRate(Report& report, std::size_t clients, const std::string& whose) {
  std::vector<double> bareShares;
  std::vector<double> shares;
  std::vector<double> switches;
  for (int round = 0; round < 5; ++round) {
    BareWake bare;
    Publication publication;
    bareShares.push_back(Serve(bare, clients).share);
    const Service service = Serve(publication, clients);
    shares.push_back(service.share);
    switches.push_back(service.switches);
  }
  const std::string item = "share of frames at 240 Hz, " + whose;
  const bool starved = PercentileOf(bareShares, 0) < kLeastShare && MedianOf(shares) < kLeastShare;
  if (starved) {
    report.Undecided(item, "bare wakes do not always get through on this machine either");
  } else {
    report.AtLeast(item, MedianOf(shares), "%", kLeastShare);
  }
  if (clients == 1) {
    report.AtMost("context switches a frame at 240 Hz, " + whose, MedianOf(switches), "", 1.1);
  }
}

void Measure(Report& report) {
  if (CpuCount() > 1) ClientOnAnotherCpu(report);
  ClientOnTheSameCpu(report);
  SystemCallsOfPublishing(report);
  AtRate(report, 1, "a client's");
  ManyClients(report);
  AtRate(report, kManyClients, "the least served of 16 clients'");
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-clients", kinetrel::bench::Measure); }

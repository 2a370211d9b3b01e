// What a publication and a client's read cost without a waiting client.
#include "bench/floors.h"
#include "bench/machine.h"
#include "bench/publication.h"
#include "bench/tracing.h"

namespace kinetrel::bench {
namespace {

constexpr int kCycles = 2000;
constexpr int kBlockSize = 500;
constexpr int kCounted = 1000;

void Publishing(Report& report) {
  const auto writer = OpenWriter();
  BarePublication bare;
  const std::vector<Paired> time =
      Interleave(kCycles, TimedBlock(kBlockSize, [&] { bare(); }),
                 TimedBlock(kBlockSize, [&] { PublishSample(*writer, kBin, 0); }));
  report.Ratio("publishing a sample, no client waits", time[0], "ns", 1.8);
}

void SystemCallsOfPublishing(Report& report) {
  const std::string item = "system calls of a publication, no client waits";
  const auto calls = CountSystemCalls([] {
    const auto writer = OpenWriter();
    BeginCount();
    for (int i = 0; i < kCounted; ++i) PublishSample(*writer, kBin, 0);
    EndCount();
  });
  if (!calls) return report.Undecided(item, "tracing a child is not permitted here");
  report.AtMost(item, PerOperation(calls->own, kCounted), "", 0);
}

void Reading(Report& report) {
  const auto writer = OpenWriter();
  const auto reader = OpenReader();
  BareRead bare;
  SharedTrackBlock copy{};
  const std::vector<Paired> time =
      Interleave(kCycles, TimedBlock(kBlockSize, [&] { bare(); }),
                 TimedBlock(kBlockSize, [&] { reader->Copy(copy, kForever); }));
  report.Ratio("a client's read, over lock, copy and unlock", time[0], "ns", 1.3);
}

void Measure(Report& report) {
  Publishing(report);
  SystemCallsOfPublishing(report);
  Reading(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-publish", kinetrel::bench::Measure); }

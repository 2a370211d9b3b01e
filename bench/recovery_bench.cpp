// How long publication stands still when the process that holds the mutex is killed.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "bench/machine.h"
#include "bench/publication.h"

namespace kinetrel::bench {
namespace {

constexpr int kRounds = 300;
constexpr auto kNap = std::chrono::microseconds(200);

struct Scene {
  std::atomic<bool> held = false;
  std::atomic<bool> publishing = false;
  std::int64_t killed = 0;
};

void AwaitFlag(const std::atomic<bool>& flag) {
  while (!flag) std::this_thread::sleep_for(kNap);
}

void HoldUntilKilled(Scene& scene) {
  const auto reader = OpenReader();
  scene.held = reader->Lock(kForever);
  for (;;) ::pause();
}

// By the end of a nap the writer waits for the mutex.
void KillWhileWriterWaits(Scene& scene, const Child& holder) {
  AwaitFlag(scene.publishing);
  std::this_thread::sleep_for(10 * kNap);
  scene.killed = ClockTicks();
  holder.Kill();
}

// Milliseconds from the kill to the end of the publication that waited.
double Round(SharedTrackWriter& writer) {
  const Common<Scene> scene;
  const Child holder([&] { HoldUntilKilled(*scene); });
  AwaitFlag(scene->held);
  const Child killer([&] { KillWhileWriterWaits(*scene, holder); });
  scene->publishing = true;
  PublishSample(writer, kBin, 0);
  return static_cast<double>(ClockTicks() - scene->killed) * kNanosecondsPerTick * 1e-6;
}

void Measure(Report& report) {
  const auto writer = OpenWriter();
  std::vector<double> standstills;
  for (int round = 0; round < kRounds; ++round) standstills.push_back(Round(*writer));
  report.AtMost("publication stands still, the mutex's owner killed, p99",
                PercentileOf(standstills, 99), "ms", 1);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-recovery", kinetrel::bench::Measure); }

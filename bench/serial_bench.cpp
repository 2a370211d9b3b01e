// What waiting for a record and reading it costs through SerialPort.
#include <array>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "bench/floors.h"
#include "devices/serial_port.h"

namespace kinetrel::bench {
namespace {

constexpr int kRecordSize = 20;  // bytes; what a tracker sends for a sample

constexpr int kFetched = 20;
constexpr auto kTransit = std::chrono::microseconds(200);  // from the far end to the near one

class PortLine final : public Handover {
 public:
  void OpenTaker() override {
    if (port_.OpenPort(line_.path().c_str(), 115200) == 0) {
      throw std::runtime_error("the pseudo-terminal cannot be opened: " + port_.openFailure());
    }
  }
  void Give() override { line_.Give(); }
  void Take() override {
    std::array<char, kRecordSize> record;
    while (!port_.WaitForRX(1000, kRecordSize) || !port_.Read(record.data(), kRecordSize)) {
    }
  }

 private:
  BareLine line_{kRecordSize};
  SerialPort port_;
};

void Reading(Report& report, const HandoverPlan& plan, const char* item) {
  BareLine bare(kRecordSize);
  PortLine port;
  const HandoverFigures figures = MeasureHandover(plan, bare, port);
  report.Ratio(item, figures.arrival, "ns", 1.2);
}

// The part of it that is the program's own: the record is there, and only fetched.
Block FetchBlock(Handover& line) {
  return [&line] {
    std::int64_t ticks = 0;
    for (int i = 0; i < kFetched; ++i) {
      line.Give();
      std::this_thread::sleep_for(kTransit);
      const std::int64_t start = ClockTicks();
      line.Take();
      ticks += ClockTicks() - start;
    }
    return std::vector{static_cast<double>(ticks) * kNanosecondsPerTick / kFetched};
  };
}

void Fetching(Report& report) {
  BareLine bare(kRecordSize);
  PortLine port;
  port.OpenTaker();
  const std::vector<Paired> time = Interleave(100, FetchBlock(bare), FetchBlock(port));
  report.Ratio("waiting for and reading a record that is there", time[0], "ns", 1.2);
}

void Measure(Report& report) {
  Fetching(report);
  if (CpuCount() > 1) {
    Reading(report, {.placement = Placement::OtherCpu, .runs = 3, .cycles = 35},
            "a record until it is read, the far end on another CPU");
  }
  Reading(report, {.placement = Placement::SameCpu, .takersFirst = true, .runs = 3, .cycles = 35},
          "a record until it is read, the far end on the same CPU");
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-serial", kinetrel::bench::Measure); }

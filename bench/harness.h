// What the benchmark programs share: measuring a thing against its bare floor, and judging it.
//
// A subject and its floor are measured in short blocks in turn, A B B A, inside one process, and
// each cycle gives one ratio. Other work of the machine slows both blocks of a cycle alike, so the
// median of the ratios is steady where a time is not.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace kinetrel::bench {

inline const double kNanosecondsPerTick = 1e9 / static_cast<double>(ClockTicksPerSecond());

// The middle half of some figures.
struct Spread {
  double low = 0;  // lower quartile
  double middle = 0;
  double high = 0;  // upper quartile
};
Spread SpreadOf(const std::vector<double>& figures);
double MedianOf(std::vector<double> figures);
double PercentileOf(std::vector<double> figures, double percent);

struct Paired {
  Spread ratio;      // subject over floor, of every cycle
  double floor = 0;  // median of the blocks, in the blocks' own unit
  double subject = 0;
};

// Runs one block and returns its figures, each for one operation.
using Block = std::function<std::vector<double>()>;

// One pair for each of the blocks' figures. The first cycle warms up and does not count.
std::vector<Paired> Interleave(int cycles, const Block& floor, const Block& subject);

// A block of `count` calls, timed together, in nanoseconds a call. A template, so that no call of a
// wrapper is timed with them.
template <typename Operation>
Block TimedBlock(int count, Operation operation) {
  return [=]() mutable {
    const std::int64_t start = ClockTicks();
    for (int i = 0; i < count; ++i) operation();
    const auto ticks = static_cast<double>(ClockTicks() - start);
    return std::vector{ticks * kNanosecondsPerTick / count};
  };
}

enum class Verdict { Pass, Noisy, Fail };

// Noisy: the middle half of the ratios lies on both sides of the limit and is wider than a quarter
// of it. Then the benchmark cannot tell whether the limit holds.
Verdict Judge(const Spread& ratio, double limit);

// Prints a line for every item, and remembers the worst.
class Report {
 public:
  explicit Report(const char* program);

  void Ratio(const std::string& item, const Paired& paired, const char* unit, double limit);
  void AtMost(const std::string& item, double figure, const char* unit, double limit);
  void AtLeast(const std::string& item, double figure, const char* unit, double limit);
  void Undecided(const std::string& item, const std::string& why);  // counts as noisy
  void Note(const std::string& text) const;                         // judges nothing

  int ExitCode() const;  // 0 all passed, 1 something failed, 2 nothing failed, something is noisy

 private:
  void Line(const std::string& item, const std::string& figure, const std::string& limit,
            Verdict verdict, const std::string& detail);

  std::FILE* out_;  // good until the program ends
  Verdict worst_ = Verdict::Pass;
};

// Whether an idle CPU may sleep during the measurement.
enum class IdleCpus { Wakeful, AsEver };

// The main function of a benchmark program: prepares the machine, measures, and returns the
// program's exit code. An exception is a failure, printed on standard error.
int RunBenchmark(const char* program, void (*measure)(Report&), IdleCpus idle = IdleCpus::Wakeful);

}  // namespace kinetrel::bench

#include "bench/harness.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <optional>
#include <utility>

#include "bench/machine.h"

namespace kinetrel::bench {
namespace {

const char* WordFor(Verdict verdict) {
  switch (verdict) {
    case Verdict::Pass:
      return "PASS";
    case Verdict::Noisy:
      return "NOISY";
    case Verdict::Fail:
      return "FAIL";
  }
  return "";
}

std::string Format(const char* form, double figure, const char* unit) {
  char text[64];
  std::snprintf(text, sizeof text, form, figure, unit);
  return text;
}

// One figure over all cycles.
struct Cycles {
  std::vector<double> floors;
  std::vector<double> subjects;
  std::vector<double> ratios;

  void Add(double floor, double subject) {
    floors.push_back(floor);
    subjects.push_back(subject);
    ratios.push_back(subject / floor);
  }
  Paired Result() const { return {SpreadOf(ratios), MedianOf(floors), MedianOf(subjects)}; }
};

}  // namespace

double PercentileOf(std::vector<double> figures, double percent) {
  if (figures.empty()) return std::nan("");
  const double last = static_cast<double>(figures.size() - 1);
  const auto place = static_cast<std::ptrdiff_t>(std::lround(last * percent / 100.0));
  std::nth_element(figures.begin(), figures.begin() + place, figures.end());
  return figures[static_cast<std::size_t>(place)];
}

double MedianOf(std::vector<double> figures) { return PercentileOf(std::move(figures), 50); }

Spread SpreadOf(const std::vector<double>& figures) {
  return {PercentileOf(figures, 25), PercentileOf(figures, 50), PercentileOf(figures, 75)};
}

std::vector<Paired> Interleave(int cycles, const Block& floor, const Block& subject) {
  std::vector<Cycles> figures(std::min(floor().size(), subject().size()));
  for (int cycle = 0; cycle < cycles; ++cycle) {
    // The order changes with every cycle, so that the effects of one block on the next even out.
    const bool floorFirst = cycle % 2 == 0;
    const std::vector<double> first = floorFirst ? floor() : subject();
    const std::vector<double> second = floorFirst ? subject() : floor();
    for (std::size_t i = 0; i < figures.size(); ++i) {
      figures[i].Add(floorFirst ? first[i] : second[i], floorFirst ? second[i] : first[i]);
    }
  }
  std::vector<Paired> pairs;
  for (const Cycles& all : figures) pairs.push_back(all.Result());
  return pairs;
}

Verdict Judge(const Spread& ratio, double limit) {
  const bool straddles = ratio.low < limit && limit < ratio.high;
  if (straddles && ratio.high - ratio.low > limit / 4) return Verdict::Noisy;
  return ratio.middle <= limit ? Verdict::Pass : Verdict::Fail;  // not a number fails
}

// ---- Report ------------------------------------------------------------------------------------

Report::Report(const char* program) : out_(KeepOutput()) { std::fprintf(out_, "%s\n", program); }

void Report::Line(const std::string& item, const std::string& figure, const std::string& limit,
                  Verdict verdict, const std::string& detail) {
  worst_ = std::max(worst_, verdict);
  std::fprintf(out_, "  %-58s %12s  %-12s %-5s  %s\n", item.c_str(), figure.c_str(), limit.c_str(),
               WordFor(verdict), detail.c_str());
}

void Report::Ratio(const std::string& item, const Paired& paired, const char* unit, double limit) {
  char detail[128];
  std::snprintf(detail, sizeof detail, "half within %.2f..%.2f; floor %.4g %s, subject %.4g %s",
                paired.ratio.low, paired.ratio.high, paired.floor, unit, paired.subject, unit);
  Line(item, Format("%.2f %s", paired.ratio.middle, "x"), Format("<= %.2f %s", limit, "x"),
       Judge(paired.ratio, limit), detail);
}

void Report::AtMost(const std::string& item, double figure, const char* unit, double limit) {
  Line(item, Format("%.4g %s", figure, unit), Format("<= %.4g %s", limit, unit),
       figure <= limit ? Verdict::Pass : Verdict::Fail, "");
}

void Report::AtLeast(const std::string& item, double figure, const char* unit, double limit) {
  Line(item, Format("%.4g %s", figure, unit), Format(">= %.4g %s", limit, unit),
       figure >= limit ? Verdict::Pass : Verdict::Fail, "");
}

void Report::Undecided(const std::string& item, const std::string& why) {
  Line(item, "-", "-", Verdict::Noisy, why);
}

void Report::Note(const std::string& text) const { std::fprintf(out_, "  (%s)\n", text.c_str()); }

int Report::ExitCode() const {
  switch (worst_) {
    case Verdict::Pass:
      return 0;
    case Verdict::Fail:
      return 1;
    case Verdict::Noisy:
      return 2;
  }
  return 1;
}

int RunBenchmark(const char* program, void (*measure)(Report&), IdleCpus idle) try {
  Report report(program);
  report.Note(IsolateNames());
  std::optional<WakefulCpus> wakeful;
  if (idle == IdleCpus::Wakeful) report.Note(wakeful.emplace().note());
  measure(report);
  return report.ExitCode();
} catch (const std::exception& failure) {
  std::fprintf(stderr, "%s: %s\n", program, failure.what());
  return 1;
}

}  // namespace kinetrel::bench

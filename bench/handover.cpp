#include "bench/handover.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <stdexcept>
#include <thread>

#include "bench/machine.h"

namespace kinetrel::bench {
namespace {

constexpr int kMostTakers = 16;
constexpr int kGiverPriority = 10;
constexpr int kFirstPriority = 11;

// Time between two looks at the takers. A giver that looks more often would hold them up.
constexpr auto kNap = std::chrono::microseconds(100);
constexpr auto kPatience = std::chrono::seconds(10);

// Time from the moment the last taker sleeps to the call: its CPU is idle by then.
constexpr std::int64_t kSettleTicks = 20'000;

struct alignas(64) Seat {
  std::atomic<int> armed = 0;  // the handover it is about to wait for
  std::atomic<int> done = 0;   // the last one it has
  std::int64_t arrival = 0;
};

// What giver and takers tell each other outside of the measurement.
struct Board {
  std::atomic<int> block = 0;  // the block that runs, from 1
  std::atomic<bool> subject = false;
  std::array<Seat, kMostTakers> seats;
};

void WaitFor(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error("a taker is silent");
    std::this_thread::sleep_for(kNap);
  }
}

int TakerCpu(Placement placement, int taker) {
  switch (placement) {
    case Placement::OtherCpu:
      return kGiverCpu + 1;
    case Placement::SameCpu:
      return kGiverCpu;
    case Placement::Spread:
      return taker % CpuCount();
  }
  return kGiverCpu;
}

class Exchange {
 public:
  Exchange(const HandoverPlan& plan, Handover& floor, Handover& subject)
      : plan_(plan), floor_(floor), subject_(subject) {
    for (std::size_t taker = 0; taker < static_cast<std::size_t>(plan.takers); ++taker) {
      takers_.emplace_back([this, taker] { TakeAll(taker); });
    }
    floor_.OpenGiver();
    subject_.OpenGiver();
  }

  ~Exchange() {
    takers_.clear();
    floor_.CloseGiver();
    subject_.CloseGiver();
  }

  HandoverFigures Run() {
    const std::vector<Paired> figures = Interleave(
        plan_.cycles, [this] { return GiveBlock(false); }, [this] { return GiveBlock(true); });
    return {figures[0], figures[1]};
  }

 private:
  struct Times {
    double call = 0;
    double arrival = 0;
  };

  void TakeAll(std::size_t taker);
  std::vector<double> GiveBlock(bool subject);
  Times GiveOnce(Handover& handover, int number);
  bool AllAsleepBefore(int number) const;
  bool AllHave(int number) const;
  std::int64_t LastArrival() const;

  const HandoverPlan plan_;
  Handover& floor_;
  Handover& subject_;
  Common<Board> board_;
  std::deque<Child> takers_;
  int given_ = 0;
};

void Exchange::TakeAll(std::size_t taker) {
  RunOnCpu(TakerCpu(plan_.placement, static_cast<int>(taker)));
  if (plan_.takersFirst) {
    RunAtPriority(kFirstPriority);
  } else {
    RunAtNormalPriority();
  }
  floor_.OpenTaker();
  subject_.OpenTaker();
  Seat& seat = board_->seats[taker];
  int number = 0;
  for (int block = 1;; ++block) {
    while (board_->block < block) std::this_thread::sleep_for(kNap);
    Handover& handover = board_->subject ? subject_ : floor_;
    handover.CatchUp();
    for (int i = 0; i < plan_.blockSize; ++i) {
      seat.armed = ++number;
      handover.Take();
      seat.arrival = ClockTicks();
      seat.done = number;
    }
  }
}

std::vector<double> Exchange::GiveBlock(bool subject) {
  board_->subject = subject;
  ++board_->block;
  std::vector<double> calls;
  std::vector<double> arrivals;
  for (int i = 0; i < plan_.blockSize; ++i) {
    const Times times = GiveOnce(subject ? subject_ : floor_, ++given_);
    calls.push_back(times.call);
    arrivals.push_back(times.arrival);
  }
  return {MedianOf(calls), MedianOf(arrivals)};
}

Exchange::Times Exchange::GiveOnce(Handover& handover, int number) {
  handover.Prepare();
  WaitFor([&] { return AllAsleepBefore(number); });
  const std::int64_t settled = ClockTicks() + kSettleTicks;
  while (ClockTicks() < settled) {
  }
  floor_.Rehearse();
  subject_.Rehearse();
  const std::int64_t start = ClockTicks();
  handover.Give();
  const std::int64_t end = ClockTicks();
  WaitFor([&] { return AllHave(number); });
  return {static_cast<double>(end - start) * kNanosecondsPerTick,
          static_cast<double>(LastArrival() - start) * kNanosecondsPerTick};
}

bool Exchange::AllAsleepBefore(int number) const {
  for (std::size_t i = 0; i < takers_.size(); ++i) {
    if (board_->seats[i].armed != number || !takers_[i].Sleeps()) return false;
  }
  return true;
}

bool Exchange::AllHave(int number) const {
  return std::all_of(board_->seats.begin(), board_->seats.begin() + plan_.takers,
                     [&](const Seat& seat) { return seat.done == number; });
}

std::int64_t Exchange::LastArrival() const {
  std::int64_t last = 0;
  for (int i = 0; i < plan_.takers; ++i) {
    last = std::max(last, board_->seats[static_cast<std::size_t>(i)].arrival);
  }
  return last;
}

// Of the pair of processes whose ratio is neither the lowest nor the highest.
Paired MiddleOf(std::vector<Paired> pairs) {
  const auto middle = pairs.begin() + static_cast<std::ptrdiff_t>(pairs.size() / 2);
  std::nth_element(pairs.begin(), middle, pairs.end(), [](const Paired& a, const Paired& b) {
    return a.ratio.middle < b.ratio.middle;
  });
  return *middle;
}

}  // namespace

HandoverFigures MeasureHandover(const HandoverPlan& plan, Handover& floor, Handover& subject) {
  RunOnCpu(kGiverCpu);
  // As the sampling thread runs. Without the permission both blocks run at ordinary priority.
  RunAtPriority(kGiverPriority);
  std::vector<Paired> calls;
  std::vector<Paired> arrivals;
  for (int run = 0; run < plan.runs; ++run) {
    const HandoverFigures figures = Exchange(plan, floor, subject).Run();
    calls.push_back(figures.call);
    arrivals.push_back(figures.arrival);
  }
  RunAtNormalPriority();
  RunOnAnyCpu();
  return {MiddleOf(calls), MiddleOf(arrivals)};
}

}  // namespace kinetrel::bench

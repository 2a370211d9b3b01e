// Handing something over from one process to others that wait for it, timed.
#pragma once

#include "bench/harness.h"

namespace kinetrel::bench {

// One way of handing over. The giver and every taker are different processes, so each opens what
// it needs itself, and the giver closes last.
class Handover {
 public:
  virtual ~Handover() = default;
  virtual void OpenGiver() {}
  virtual void OpenTaker() {}
  virtual void CloseGiver() {}
  virtual void Prepare() {}  // before every Give, outside of what is timed
  virtual void Give() = 0;
  virtual void Rehearse() {}  // what Give does, once, where nobody waits
  virtual void CatchUp() {}   // before some Takes: what was given so far is none of theirs
  virtual void Take() = 0;    // waits for what is given next, and returns when it is in hand
};

inline constexpr int kGiverCpu = 0;

enum class Placement {
  OtherCpu,  // the takers on the CPU after the giver's
  SameCpu,
  Spread  // the takers on all CPUs in turn
};

struct HandoverPlan {
  Placement placement = Placement::OtherCpu;
  bool takersFirst = false;  // on one CPU: a woken taker runs at once, before the giver returns
  int takers = 1;
  int runs = 1;        // each with new processes: where their memory lies makes a difference too
  int cycles = 100;    // in a run
  int blockSize = 25;  // handovers in a block
};

struct HandoverFigures {
  Paired call;     // the giver's call, ns
  Paired arrival;  // from the start of the call until the last taker has it, ns
};

// Every single handover starts with all takers asleep in their wait, and the giver having rehearsed
// both calls: finding out whether somebody sleeps has driven their code out of its caches, the
// longer one's more. A block's figure is the median of its handovers; the figures are those of the
// run in the middle. Throws std::runtime_error when a taker does not answer.
HandoverFigures MeasureHandover(const HandoverPlan& plan, Handover& floor, Handover& subject);

}  // namespace kinetrel::bench

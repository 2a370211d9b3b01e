// Times how one process hands something over to others that wait for it.
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
  virtual void Prepare() {}  // before every Give; not timed
  virtual void Give() = 0;
  virtual void Rehearse() {}  // the same work as Give, once, without a waiting taker
  virtual void CatchUp() {}   // before some Takes: skips what was given so far
  virtual void Take() = 0;    // waits for the next Give and takes it
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

// Every handover starts with all takers asleep and after the giver has rehearsed both calls:
// looking whether a taker sleeps drives their code out of the caches, more of the longer one. The
// figure of a block is the median of its handovers; the figures are those of the middle run. Throws
// std::runtime_error if a taker does not answer.
HandoverFigures MeasureHandover(const HandoverPlan& plan, Handover& floor, Handover& subject);

}  // namespace kinetrel::bench

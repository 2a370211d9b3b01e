// The system calls of a traced child: counted, not timed, as tracing slows them tenfold.
#pragma once

#include <functional>
#include <map>
#include <optional>

namespace kinetrel::bench {

using SystemCalls = std::map<long, int>;  // by number

struct TracedCalls {
  SystemCalls own;      // of the thread that runs the body
  SystemCalls busiest;  // of that of its threads that makes most; without output on the console

  // Those of the busiest that put it to sleep until something happens or its time is up.
  int busiestWaits = 0;
};

// Runs `body` in a traced child and counts the system calls made between BeginCount and EndCount.
// Empty if tracing is not permitted. Call it while no other child runs.
std::optional<TracedCalls> CountSystemCalls(const std::function<void()>& body);
void BeginCount();  // both on the thread that runs the body
void EndCount();
double PerOperation(const SystemCalls& calls, int operations);

}  // namespace kinetrel::bench

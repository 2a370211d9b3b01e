// Counts the allocations that a thread makes while it asks for it.
#pragma once

namespace kinetrel::test {

void CountAllocations(bool on);  // of the calling thread
int CountedAllocations();        // of all threads that counted

// Those of this thread during `action`.
template <typename Action>
int AllocationsOf(Action action) {
  const int before = CountedAllocations();
  CountAllocations(true);
  action();
  CountAllocations(false);
  return CountedAllocations() - before;
}

}  // namespace kinetrel::test

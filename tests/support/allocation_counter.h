// Counts the allocations that a thread makes while it asks for it.
#pragma once

namespace kinetrel::test {

void CountAllocations(bool on);  // of the calling thread
int CountedAllocations();        // of all threads that counted

}  // namespace kinetrel::test

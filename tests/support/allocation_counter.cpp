#include "tests/support/allocation_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local bool counting = false;
std::atomic<int> counted = 0;

}  // namespace

// Replaced in every program that links this file: a source of its own, so that no call is inlined
// on one side only.
void* operator new(std::size_t size) {
  if (counting) ++counted;
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace kinetrel::test {

void CountAllocations(bool on) { counting = on; }
int CountedAllocations() { return counted; }

}  // namespace kinetrel::test

// A shared-memory device number that no other test and no running program uses.
#pragma once

#include <cstdint>

namespace kinetrel::test {

// Held for the object's life, and never longer than the test program lives.
class FreeSlot {
 public:
  FreeSlot();  // waits while every number is taken
  ~FreeSlot();
  FreeSlot(const FreeSlot&) = delete;
  FreeSlot& operator=(const FreeSlot&) = delete;

  int device() const { return device_; }    // 0..15
  int slot() const { return device_ + 1; }  // as a user counts them, from 1

 private:
  bool Take();

  int device_ = -1;
  std::intptr_t lock_ = -1;
};

}  // namespace kinetrel::test

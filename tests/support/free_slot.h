// A shared-memory device number that no other test and no running program uses, and the arguments
// of a program that publishes there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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
  bool Lock(const std::string& name);  // false: another process has it
  void Unlock();
  static bool IsUsed(const std::string& block);
  static void RemoveAbandonedStream(int slot);  // that a killed writer left

  int device_ = -1;
  std::intptr_t lock_ = -1;
};

// Runs the program with the simulated tracker on `slot`.
inline std::vector<std::string> Simulated(const FreeSlot& slot,
                                          std::vector<std::string> more = {}) {
  std::vector<std::string> arguments = {"-d8", "-z-", "-w" + std::to_string(slot.slot())};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

}  // namespace kinetrel::test

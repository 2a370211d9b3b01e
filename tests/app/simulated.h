// The program with the simulated tracker.
#pragma once

#include <string>
#include <vector>

#include "tests/support/free_slot.h"

namespace kinetrel::test {

inline std::vector<std::string> Simulated(const FreeSlot& slot,
                                          std::vector<std::string> more = {}) {
  std::vector<std::string> arguments = {"-d8", "-z-", "-w" + std::to_string(slot.slot())};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

}  // namespace kinetrel::test

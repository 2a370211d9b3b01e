// What a report says of the machine.
#pragma once

#include <string>

namespace kinetrel {

struct SystemFacts {
  std::string system;       // its product and version; empty: unknown
  std::string kernel;       // its name, release and build
  std::string processor;    // its model; empty: unknown
  unsigned processors = 0;  // that run at once, as the system counts them
};

SystemFacts ReadSystemFacts();

}  // namespace kinetrel

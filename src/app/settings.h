// What the command line and the configuration file set.
#pragma once

#include <string>

#include "engine/start_config.h"

namespace kinetrel {

// Who reads the options. Some are for one program only.
enum class Audience : unsigned {
  Console = 1U << 0,  // kinetrel
  Service = 1U << 1,  // kinetrel-service
  Host = 1U << 2,     // a host program, by kinetrel_set_options
};

const char* NameOf(Audience audience);  // of its program, as a user types it

// Of the program around the engine. A host has no use for them.
struct ProgramSettings {
  std::string configFile;   // of --config; empty: none
  std::string ignoredFile;  // of the letter -i, which is never read
  std::string listen;       // as --listen gives it; empty: not given
  bool quiet = false;       // no blinking cursor, no error marks
};

struct Settings {
  StartConfig start;
  ProgramSettings program;
};

}  // namespace kinetrel

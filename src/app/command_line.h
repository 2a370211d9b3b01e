// The operator's options: one letter each, every accepted value echoed in words.
#pragma once

#include "engine/start_config.h"

namespace kinetrel {

// Applies the options to `config`; those that are not given leave it as it is.
//
// arguments  the program's name first.
// Returns    true when all were accepted. False after the usage text: the first malformed option
//            ends the walk, and the options before it stay applied.
// Errors     an out-of-range value of some options is reported and ignored.
// Threads    any; prints on the standard streams.
bool ParseCommandLine(StartConfig& config, int count, const char* const* arguments);

}  // namespace kinetrel

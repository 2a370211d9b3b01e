// The options of the console program: one letter each. Every accepted value is printed in words.
#pragma once

#include "engine/start_config.h"

namespace kinetrel {

// Applies the given options to `config`; the other settings stay unchanged.
//
// arguments  the name of the program first.
// Returns    true if all options were accepted. False after the usage text: parsing ends at the
//            first malformed option, and the options before it stay applied.
// Errors     an out-of-range value of -d, -k or -w is reported and ignored.
// Threads    any; prints on the standard streams.
bool ParseCommandLine(StartConfig& config, int count, const char* const* arguments);

}  // namespace kinetrel

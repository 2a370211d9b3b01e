// Walks the command line of the programs and of kinetrel_set_options. Every accepted value is
// printed in words.
#pragma once

#include <string>

#include "app/settings.h"

namespace kinetrel {

// What the arguments ask for.
enum class Request { Run, Help, Version, PrintConfig, CheckConfig };

// Looks for a request without applying any option.
//
// arguments  the name of the program first.
Request RequestOf(Audience audience, int count, const char* const* arguments);

// Applies the file of --config, then the other options, to `settings`; what neither names stays
// unchanged. An option replaces what the file says.
//
// complaint  receives what is wrong, in a sentence or two, if the result is false; it was printed.
// Returns    true if all options were accepted. False: parsing ended at the first malformed option,
//            and the options before it stay applied. After a malformed letter the usage is printed.
// Errors     an out-of-range value of -d, -k or -w is reported and ignored.
// Threads    any; prints on the standard streams.
bool ParseCommandLine(Settings& settings, Audience audience, int count,
                      const char* const* arguments, std::string& complaint);

// The text of --help.
std::string HelpText(Audience audience);

}  // namespace kinetrel

// The part of the command line that plays a capture: kinetrel-emulate replay FILE.
#pragma once

#include <string>

#include "emulate/emulate_command.h"

namespace kinetrel::emulate {

// Adds the subcommand.
void AddReplay(CLI::App& app);

// file  as the command line names it. A mistake leaves a complaint in `values`.
void ReadReplay(EmulateCommand& command, OptionValues& values, const std::string& file);

}  // namespace kinetrel::emulate

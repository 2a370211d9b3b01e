// The operator's options: one letter each, every accepted value echoed in words.
#pragma once

namespace kinetrel {

class TrackerEngine;

// Applies the options to the engine's start configuration; only those given change anything.
//
// arguments  the program's name first.
// Returns    true when all were accepted; false after the usage text: the first malformed option
//            ends the walk, and what came before it stays applied.
// Errors     an out-of-range value of some options is only reported, and ignored.
bool ParseCommandLine(TrackerEngine& engine, int count, const char* const* arguments);

}  // namespace kinetrel

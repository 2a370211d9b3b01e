// Marks on the console that a time-critical thread may leave.
#pragma once

namespace kinetrel {

// Writes a few bytes to standard output if it takes them at once, else drops them: a stopped
// terminal or a full pipe must not stop the sampling. Never allocates, never waits.
void ShowTransient(const char* text);

}  // namespace kinetrel

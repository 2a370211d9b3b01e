// What a time-critical thread may leave on the console: a stopped terminal or a full pipe must not
// stop the sampling.
#pragma once

namespace kinetrel {

// Whether standard output takes a line at once, or would hold whoever writes it. Windows does not
// tell: true there.
bool OutputTakesLine();

// Writes a few bytes to standard output if it takes them at once, else drops them. Never allocates,
// never waits.
void ShowTransient(const char* text);

}  // namespace kinetrel

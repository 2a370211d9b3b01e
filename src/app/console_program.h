// What the programs with an engine have in common: the banner, the options, opening, and the end.
#pragma once

#include <atomic>
#include <functional>

namespace kinetrel {

class TrackerEngine;

// Exit codes.
enum class ExitCode : int {
  Done = 0,
  BadArguments = -1,
  OpenFailed = -2,
  ServingFailed = -3,  // of the service only: the address is not to be had
};

// What a program does while the engine samples: returns when sampling is over or `stopRequest` has
// become nonzero and sampling was stopped.
using Session = std::function<ExitCode(TrackerEngine& engine, const std::atomic<int>& stopRequest)>;

// From the arguments (the program's name first) to the exit code: prints the banner, applies the
// options, opens the device, starts sampling, runs the session, and closes.
//
// Signals that end the program are caught from the first moment on; keys are read, where there is a
// terminal, without echo.
ExitCode RunConsoleProgram(int count, const char* const* arguments, const Session& session);

}  // namespace kinetrel

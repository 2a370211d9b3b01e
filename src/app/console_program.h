// What the console program and the service have in common: the banner, the options, opening the
// device, the console loop, and the end.
#pragma once

#include <atomic>
#include <functional>

#include "app/settings.h"

namespace kinetrel {

class TrackerEngine;

// Exit codes.
enum class ExitCode : int {
  Done = 0,
  BadArguments = -1,
  OpenFailed = -2,
  ServingFailed = -3,  // the service only: it cannot listen on the address
};

// What a program does while the engine samples. Returns when sampling is over; stops sampling when
// `stopRequest` becomes nonzero.
using Session = std::function<ExitCode(TrackerEngine& engine, const std::atomic<int>& stopRequest)>;

// What a program does between its options and the device. A result other than Done ends the
// program.
using Preparation = std::function<ExitCode(const ProgramSettings& settings)>;

// Runs a whole program, from the arguments (the name of the program first) to the exit code. Prints
// the banner, applies the options, prepares, opens the device, starts sampling, runs the session
// and closes.
//
// Catches the signals that end a program from the start. Reads keys without echo if standard input
// is a terminal.
ExitCode RunConsoleProgram(Audience audience, int count, const char* const* arguments,
                           const Preparation& prepare, const Session& session);

// Waits for the sampling thread to end and acts on one key per 500 ms: Ctrl-A zeroes the azimuth,
// A restores it, ESC stops sampling. A nonzero `stopRequest` stops sampling too. While the tracker
// itself takes the keys, the loop takes ESC only.
//
// announce  called every 50 ms until it returns true.
void RunConsoleLoop(TrackerEngine& engine, const std::atomic<int>& stopRequest,
                    const std::function<bool()>& announce);

}  // namespace kinetrel

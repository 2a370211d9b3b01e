// The console program: opens one tracker, samples it, and publishes its poses until told to stop.

#include <atomic>
#include <cstdio>

#include "app/command_line.h"
#include "app/console_loop.h"
#include "engine/tracker_engine.h"
#include "platform/console.h"
#include "platform/stop_signals.h"

namespace {

using kinetrel::OpenResult;
using kinetrel::TrackerEngine;

constexpr double kServiceVersion = 1.3;
constexpr double kSharedMemoryVersion = 1.42F;  // of the published block

enum class ExitCode : int { Done = 0, BadArguments = -1, OpenFailed = -2 };

// Set by a signal, read by the console loop: one per process, as signals are.
std::atomic<int> stopRequest = 0;

void PrintBanner() {
  std::fputs("Kinetrel - motion tracker driver\nThe Kinetrel team\n", stderr);
  std::fprintf(stderr, "\n\tService Version: %6.3f \tKinetrel Version: %6.3f\n", kServiceVersion,
               kSharedMemoryVersion);
}

ExitCode Run(TrackerEngine& engine, int count, const char* const* arguments) {
  if (!ParseCommandLine(engine, count, arguments)) return ExitCode::BadArguments;
  const kinetrel::StartConfig config = engine.Configuration();
  if (engine.Open(config.deviceType, config.port, false) != OpenResult::Opened) {
    return ExitCode::OpenFailed;
  }
  if (engine.IsOpen()) engine.StartSampling();
  kinetrel::RunConsoleLoop(engine, stopRequest);
  engine.Close();
  return ExitCode::Done;
}

}  // namespace

int main(int count, char** arguments) {
  kinetrel::CatchStopSignals(stopRequest);
  // Before the device is opened: a key pressed while it boots waits for the loop.
  const kinetrel::KeySession keys;
  PrintBanner();
  TrackerEngine engine;
  const ExitCode code = Run(engine, count, arguments);
  std::fputs("\n", stderr);  // the prompt that follows starts on a line of its own
  return static_cast<int>(code);
}

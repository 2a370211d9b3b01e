#include "app/console_program.h"

#include <cstdio>

#include "app/command_line.h"
#include "drivers/driver_table.h"
#include "engine/tracker_engine.h"
#include "platform/console.h"
#include "platform/stop_signals.h"

namespace kinetrel {
namespace {

constexpr double kServiceVersion = 1.3;
constexpr double kSharedMemoryVersion = 1.42F;  // of the published block

// Set by a signal, read by the console loop: one per process, as signals are.
std::atomic<int> stopRequest = 0;

void PrintBanner() {
  std::fputs("Kinetrel - motion tracker driver\nThe Kinetrel team\n", stderr);
  std::fprintf(stderr, "\n\tService Version: %6.3f \tKinetrel Version: %6.3f\n", kServiceVersion,
               kSharedMemoryVersion);
}

ExitCode Run(TrackerEngine& engine, int count, const char* const* arguments,
             const Session& session) {
  StartConfig config;
  if (!ParseCommandLine(config, count, arguments)) return ExitCode::BadArguments;
  engine.Configure(config);
  if (engine.Open(config.deviceType, config.port, false) != OpenResult::Opened) {
    return ExitCode::OpenFailed;
  }
  if (engine.IsOpen()) engine.StartSampling();
  const ExitCode code = session(engine, stopRequest);
  engine.Close();
  return code;
}

}  // namespace

ExitCode RunConsoleProgram(int count, const char* const* arguments, const Session& session) {
  // Some systems keep back what leads to a pipe or a file.
  std::setvbuf(stderr, nullptr, _IONBF, 0);
  CatchStopSignals(stopRequest);
  // Before the device is opened: a key pressed while it boots waits for the loop.
  const KeySession keys;
  PrintBanner();
  TrackerEngine engine(AllDrivers());
  const ExitCode code = Run(engine, count, arguments, session);
  std::fputs("\n", stderr);  // the prompt that follows starts on a line of its own
  return code;
}

}  // namespace kinetrel

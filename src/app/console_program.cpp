#include "app/console_program.h"

#include <cstdio>
#include <optional>
#include <string_view>

#include "app/command_line.h"
#include "drivers/driver_table.h"
#include "engine/tracker_engine.h"
#include "platform/console.h"
#include "platform/signals.h"

namespace kinetrel {
namespace {

constexpr double kServiceVersion = 1.3;
constexpr double kSharedMemoryVersion = 1.42F;  // of the published block

constexpr Milliseconds kStep{500};
constexpr Milliseconds kAnnounceStep{50};
// The keys that a tracker which takes the keys hands on: ESC stops, O does nothing.
constexpr std::string_view kHandedOn = "\x1BOo";
constexpr int kCtrlA = 1;
constexpr int kEscape = 27;

// A signal sets it, the console loop reads it. One per process, because signals are.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
std::atomic<int> stopRequest = 0;

void PrintBanner() {
  std::fputs("Kinetrel - motion tracker driver\nThe Kinetrel team\n", stderr);
  std::fprintf(stderr, "\n\tService Version: %6.3f \tKinetrel Version: %6.3f\n", kServiceVersion,
               kSharedMemoryVersion);
}

ExitCode Run(TrackerEngine& engine, int count, const char* const* arguments,
             const Preparation& prepare, const Session& session) {
  StartConfig config;
  if (!ParseCommandLine(config, count, arguments)) return ExitCode::BadArguments;
  if (const ExitCode prepared = prepare(); prepared != ExitCode::Done) return prepared;
  engine.Configure(config);
  if (engine.Open(config.deviceType, config.port, false) != OpenResult::Opened) {
    return ExitCode::OpenFailed;
  }
  if (engine.IsOpen()) engine.StartSampling();
  const ExitCode code = session(engine, stopRequest);
  engine.Close();
  return code;
}

// ---- The console loop --------------------------------------------------------------------------

void Acknowledge(const char* text) {
  std::fputs(text, stdout);
  std::fflush(stdout);
}

void ActOnKey(TrackerEngine& engine, Key key) {
  if (key.extended) return;
  switch (key.code) {
    case kCtrlA:
      engine.ZeroAzimuth();
      Acknowledge("\rRunning ... (Azimuth Zeroed) ");
      break;
    case 'A':
    case 'a':
      engine.RestoreAzimuth();
      Acknowledge("\r                                \rRunning ... ");
      break;
    case kEscape:
      engine.StopSampling(true);
      break;
    default:
      break;
  }
}

// Waits one step for the end of sampling. True: sampling is over.
bool WaitOneStep(const TrackerEngine& engine, const std::function<bool()>& announce,
                 bool& announced) {
  const Deadline step(kStep);
  while (!announced && !step.Passed()) {
    if (engine.WaitSampling(kAnnounceStep)) return true;
    announced = announce();
  }
  return engine.WaitSampling(step.Remaining());
}

}  // namespace

ExitCode RunConsoleProgram(int count, const char* const* arguments, const Preparation& prepare,
                           const Session& session) {
  // Some systems buffer standard error when it leads to a pipe or a file.
  std::setvbuf(stderr, nullptr, _IONBF, 0);
  CatchStopSignals(stopRequest);
  // Before the device is opened, so that a key pressed during its boot waits for the loop.
  const KeySession keys;
  PrintBanner();
  TrackerEngine engine(AllDrivers());
  const ExitCode code = Run(engine, count, arguments, prepare, session);
  std::fputs("\n", stderr);  // the shell's prompt starts on a new line
  return code;
}

void RunConsoleLoop(TrackerEngine& engine, const std::atomic<int>& stop,
                    const std::function<bool()>& announce) {
  bool announced = false;
  while (engine.HasSamplingThread() && !WaitOneStep(engine, announce, announced)) {
    if (stop != 0) {
      engine.StopSampling(true);
    } else if (const std::optional<Key> key = TakeUnclaimedKey(kHandedOn)) {
      ActOnKey(engine, *key);
    }
  }
}

}  // namespace kinetrel

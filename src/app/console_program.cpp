#include "app/console_program.h"

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "app/command_line.h"
#include "app/config_file.h"
#include "app/open_advice.h"
#include "app/service_report.h"
#include "drivers/driver_table.h"
#include "engine/tracker_engine.h"
#include "platform/console.h"
#include "platform/port_list.h"
#include "platform/service_manager.h"
#include "platform/signals.h"
#include "platform/version.h"

namespace kinetrel {
namespace {

constexpr double kServiceVersion = 1.3;

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
  PrintError("Kinetrel - motion tracker driver\nThe Kinetrel team\n");
  PrintError("\n\tService Version: %6.3f \tKinetrel Version: %6.3f\n", kServiceVersion,
             double{kBlockVersion});
}

ExitCode Print(const std::string& text) {
  const bool written = std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
  if (!written) std::perror("kinetrel: the output cannot be written");
  return written ? ExitCode::Done : ExitCode::BadArguments;
}

// What the options come to, without a run.
ExitCode TellConfig(Audience audience, int count, const char* const* arguments, bool whole) {
  Settings settings;
  std::string complaint;
  SwitchPrinting(false);
  const bool correct = ParseCommandLine(settings, audience, count, arguments, complaint);
  SwitchPrinting(true);
  if (correct) return Print(whole ? ConfigText(settings, audience) : "The options are correct.\n");
  std::erase(complaint, '\t');  // so that an editor finds FILE:LINE
  std::fprintf(stderr, "%s\n", complaint.c_str());
  return ExitCode::BadArguments;
}

ExitCode Run(TrackerEngine& engine, Audience audience, int count, const char* const* arguments,
             const Preparation& prepare, const Session& session) {
  Settings settings;
  std::string complaint;
  if (!ParseCommandLine(settings, audience, count, arguments, complaint)) {
    return ExitCode::BadArguments;
  }
  SwitchTransient(!settings.program.quiet);
  const ExitCode prepared = prepare(settings.program);
  if (prepared != ExitCode::Done) return prepared;
  const StartConfig& config = settings.start;
  if (count == 1) {
    PrintError("\n\tWithout options: a FASTRAK on COM1 (%s). %s --help lists the options.\n",
               DescribePort("COM1").path.c_str(), NameOf(audience));
  }
  engine.Configure(config);
  if (const OpenResult result = engine.Open(config.deviceType, config.port, false);
      result != OpenResult::Opened) {
    const std::string advice =
        AdviceAfterFailedOpen(config, result, [] { return stopRequest != 0; });
    if (!advice.empty()) PrintError("\n\t\t%s", advice.c_str());
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

ExitCode RunConsoleProgram(Audience audience, int count, const char* const* arguments,
                           const Preparation& prepare, const Session& session) {
  const Request request = RequestOf(audience, count, arguments);
  switch (request) {
    case Request::Help:
      return Print(HelpText(audience));
    case Request::Version:
      return Print(VersionText(NameOf(audience)));
    case Request::PrintConfig:
    case Request::CheckConfig:
      return TellConfig(audience, count, arguments, request == Request::PrintConfig);
    case Request::Run:
      break;
  }
  // Some systems buffer standard error when it leads to a pipe or a file.
  std::setvbuf(stderr, nullptr, _IONBF, 0);
  if (StandardErrorIsJournal()) PrintForJournal();
  CatchStopSignals(stopRequest);
  // Before the device is opened, so that a key pressed during its boot waits for the loop.
  const KeySession keys;
  PrintBanner();
  TrackerEngine engine(AllDrivers());
  const ExitCode code = Run(engine, audience, count, arguments, prepare, session);
  PrintError("\n");  // the shell's prompt starts on a new line
  return code;
}

void RunConsoleLoop(TrackerEngine& engine, const std::atomic<int>& stop,
                    const std::function<bool()>& announce) {
  ServiceReport report(engine);
  bool announced = false;
  while (engine.HasSamplingThread() && !WaitOneStep(engine, announce, announced)) {
    report.Look();
    if (stop != 0) {
      report.Stopping();
      engine.StopSampling(true);
    } else if (const std::optional<Key> key = TakeUnclaimedKey(kHandedOn)) {
      ActOnKey(engine, *key);
    }
  }
  report.Stopping();
}

}  // namespace kinetrel

// The console program: opens one tracker, samples it, and publishes its poses until it is stopped.

#include "app/console_program.h"
#include "platform/console.h"

int main(int count, char** arguments) {
  kinetrel::HoldStandardStreams();
  const auto session = [](kinetrel::TrackerEngine& engine, const std::atomic<int>& stopRequest) {
    kinetrel::RunConsoleLoop(engine, stopRequest, [] { return true; });
    return kinetrel::ExitCode::Done;
  };
  const auto nothing = [](const kinetrel::ProgramSettings&) { return kinetrel::ExitCode::Done; };
  return static_cast<int>(
      kinetrel::RunConsoleProgram(kinetrel::Audience::Console, count, arguments, nothing, session));
}

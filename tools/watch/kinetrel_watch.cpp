// kinetrel-watch: shows what a running tracker publishes.
#include <atomic>
#include <cstdio>
#include <string>

#include "platform/console.h"
#include "platform/signals.h"
#include "watch/watch_options.h"
#include "watch/watch_screen.h"
#include "watch/watcher.h"

namespace {

using kinetrel::ExitCode;
using kinetrel::WatchRequest;

ExitCode Print(const std::string& text) {
  if (kinetrel::WriteOut(text) != kinetrel::WriteResult::Failed) return ExitCode::Done;
  std::perror("kinetrel-watch: the output cannot be written");
  return ExitCode::CannotWrite;
}

ExitCode Serve(const kinetrel::WatchCommand& command) {
  switch (command.request) {
    case WatchRequest::Help:
      return Print(kinetrel::WatchUsage());
    case WatchRequest::Version:
      return Print(std::string(kinetrel::kWatchVersion) + "\n");
    case WatchRequest::Refuse:
      std::fprintf(stderr, "kinetrel-watch: %s (see kinetrel-watch --help)\n",
                   command.complaint.c_str());
      return ExitCode::BadArguments;
    case WatchRequest::Watch:
      break;
  }
  // Never deleted: a late signal may still store into it.
  std::atomic<int>& stop = *new std::atomic<int>(0);
  kinetrel::CatchStopSignals(stop);
  return kinetrel::Watcher(command.options, stop).Run();
}

}  // namespace

int main(int count, char** arguments) {
  kinetrel::HoldStandardStreams();
  std::setvbuf(stderr, nullptr, _IONBF, 0);  // some systems keep back what leads to a pipe
  return static_cast<int>(Serve(kinetrel::ParseWatchCommand(count, arguments)));
}

// kinetrel-bridge, and each program with another table of protocols: sends the poses of running
// trackers in the protocols of other software.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bridge/bridge.h"
#include "bridge/bridge_options.h"
#include "bridge/line_writer.h"
#include "platform/signals.h"
#include "program/program.h"

namespace kinetrel::bridge {
namespace {

constexpr int kDone = 0;
constexpr int kRefused = 2;

int Serve(const BridgeOptions& options) {
  LineWriter errors(stderr);
  LineWriter prints(stdout);
  // Never deleted: a late signal may still store into it.
  std::atomic<int>& stop = *new std::atomic<int>(0);
  CatchStopSignals(stop);
  std::string failure;
  {
    Bridge bridge(options, errors, prints, stop);
    failure = bridge.Open();
    if (failure.empty()) bridge.Run();
  }
  if (!failure.empty()) errors.Write(std::string(ThisProgram().name) + ": " + failure);
  const int code = failure.empty() ? kDone : kRefused;
  const bool allWritten = errors.Finish() && prints.Finish();
  if (!allWritten) std::_Exit(code);
  return code;
}

}  // namespace
}  // namespace kinetrel::bridge

int main(int count, char** arguments) {
  using namespace kinetrel::bridge;
  const std::string name(ThisProgram().name);
  return kinetrel::RunProgram(name, [&] {
    const BridgeCommand command = ParseBridgeCommand(count, arguments);
    return command.ending ? Print(*command.ending, name) : Serve(command.options);
  });
}

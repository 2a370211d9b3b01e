// kinetrel-bridge, and each program with another table of protocols: sends the poses of running
// trackers in the protocols of other software.
#include <atomic>
#include <cstdio>
#include <string>

#include "bridge/bridge.h"
#include "bridge/bridge_options.h"
#include "platform/console.h"
#include "platform/signals.h"

namespace kinetrel::bridge {
namespace {

constexpr int kDone = 0;
constexpr int kRefused = 2;

int Refuse(const std::string& why) {
  std::fprintf(stderr, "%s: %s\n", std::string(ThisProgram().name).c_str(), why.c_str());
  return kRefused;
}

int Serve(const BridgeCommand& command) {
  if (command.request == BridgeRequest::Print) {
    std::fputs(command.text.c_str(), stdout);
    return kDone;
  }
  if (command.request == BridgeRequest::Refuse) {
    return Refuse(command.text + " (see " + std::string(ThisProgram().name) + " --help)");
  }
  // Never deleted: a late signal may still store into it.
  std::atomic<int>& stop = *new std::atomic<int>(0);
  CatchStopSignals(stop);
  Bridge bridge(command.options, stop);
  const std::string failure = bridge.Open();
  if (!failure.empty()) return Refuse(failure);
  bridge.Run();
  return kDone;
}

}  // namespace
}  // namespace kinetrel::bridge

int main(int count, char** arguments) {
  using namespace kinetrel::bridge;
  kinetrel::HoldStandardStreams();
  std::setvbuf(stderr, nullptr, _IONBF, 0);  // some systems buffer it when it leads to a pipe
  return Serve(ParseBridgeCommand(count, arguments));
}

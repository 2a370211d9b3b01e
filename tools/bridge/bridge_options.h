// The command line of kinetrel-bridge.
#pragma once

#include <string>

#include "bridge/bridge.h"

namespace kinetrel::bridge {

enum class BridgeRequest { Run, Print, Refuse };

struct BridgeCommand {
  BridgeRequest request = BridgeRequest::Run;
  BridgeOptions options;
  std::string text;  // to print; or why the command is refused
};

// `arguments` as main has them, the program's name first.
BridgeCommand ParseBridgeCommand(int count, const char* const* arguments);

// The protocols with their defaults, one line each.
std::string ProtocolList();

}  // namespace kinetrel::bridge

// The command line of kinetrel-bridge.
#pragma once

#include <optional>
#include <string>

#include "bridge/bridge.h"
#include "program/program.h"

namespace kinetrel::bridge {

struct BridgeCommand {
  std::optional<Ending> ending;  // set: send nothing
  BridgeOptions options;
};

// `arguments` as main has them, the program's name first.
BridgeCommand ParseBridgeCommand(int count, const char* const* arguments);

// The protocols with their defaults, one line each.
std::string ProtocolList();

}  // namespace kinetrel::bridge

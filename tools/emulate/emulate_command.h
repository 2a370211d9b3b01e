// The command line of kinetrel-emulate.
#pragma once

#include <memory>
#include <span>
#include <string>

#include "emulate/device_table.h"
#include "emulate/emulator.h"

namespace kinetrel {

enum class EmulateRequest { Emulate, Help, Refuse };

struct EmulateCommand {
  EmulateRequest request = EmulateRequest::Emulate;
  std::string text = {};  // the help, or why it is refused
  const DeviceRow* row = nullptr;
  std::unique_ptr<EmulatedDevice> device = {};
  EmulatorOptions options = {};
  bool show = false;
};

// `arguments` without the program's name.
EmulateCommand ParseEmulateCommand(std::span<const char* const> arguments);

// The lines that start kinetrel on this device.
std::string HowToConnect(const DeviceRow& row, const std::string& port);

}  // namespace kinetrel

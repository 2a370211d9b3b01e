// The devices that kinetrel-emulate can be.
//
// A new one is a pair of files and a row of the table: a class of EmulatedDevice, its own options,
// and a function that makes it of them. It is then in the program and its help, and is fuzzed.
#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "emulate/emulated_device.h"
#include "emulate/motion.h"
#include "emulate/options.h"

namespace kinetrel::emulate {

struct DeviceRow {
  std::string_view name;     // as the command line has it
  std::string_view summary;  // one line for the help
  int kinetrelType;          // n of kinetrel -d n
  unsigned baud;             // of its line, when power comes on
  OptionTable (*options)();  // its own options

  // A refused option leaves a complaint in `options`; the device made is then not used.
  std::unique_ptr<EmulatedDevice> (*make)(OptionValues& options,
                                          std::shared_ptr<const Motion> motion);
};

std::span<const DeviceRow> Devices();
const DeviceRow* FindDevice(std::string_view name);  // null: none of that name

}  // namespace kinetrel::emulate

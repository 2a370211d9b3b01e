// The command line of kinetrel-emulate: a device, its own options, and those of every device.
#pragma once

#include <memory>
#include <optional>

#include "emulate/device_table.h"
#include "emulate/emulated_device.h"
#include "emulate/emulator.h"
#include "emulate/pose_feed.h"
#include "program/program.h"

namespace kinetrel::emulate {

struct EmulateCommand {
  std::optional<Ending> ending = {};  // set: emulate nothing
  const DeviceRow* row = nullptr;
  std::string kinetrelOptions = {};  // that kinetrel needs besides the port
  std::unique_ptr<EmulatedDevice> device = {};
  EmulatorOptions options = {};
  bool show = false;
  bool usb = false;
  std::string port = {};                // a real line's; empty: a pseudo-terminal
  std::unique_ptr<PoseFeed> feed = {};  // null: the motion is not that of a live source

  // Of the device. A device made anew knows the stations that a live source has by then.
  OptionValues values = {};
  std::shared_ptr<const Motion> motion = {};
  void MakeDevice() { device = row->make(values, motion); }
};

// `arguments` as main has them, the program's name first.
EmulateCommand ParseEmulateCommand(int count, const char* const* arguments);

}  // namespace kinetrel::emulate

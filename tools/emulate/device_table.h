// The devices that kinetrel-emulate can play.
//
// To add one, write a pair of files (a class of EmulatedDevice, its options, and a function that
// makes it from them) and one row of the table. The program, its help and the fuzz target then have
// it.
#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "emulate/emulated_device.h"
#include "emulate/motion.h"
#include "emulate/options.h"
#include "platform/usb_device_port.h"

namespace kinetrel::emulate {

struct DeviceRow {
  std::string_view name;     // on the command line
  std::string_view summary;  // one line for the help
  int kinetrelType;          // n of kinetrel -d n
  const char* kinetrelName;  // NAME of kinetrel --device NAME
  bool takesPath;            // false: its driver takes COM numbers only
  unsigned baud;             // of its line when power comes on
  OptionTable (*options)();  // its own options
  const UsbIdentity* usb;    // what it is on USB; null: it has no USB
  double unitsPerMetre;      // of the positions of its motion

  // A refused option leaves a complaint in `options`; the device made is then not used.
  std::unique_ptr<EmulatedDevice> (*make)(OptionValues& options,
                                          std::shared_ptr<const Motion> motion);
};

std::span<const DeviceRow> Devices();
const DeviceRow* FindDevice(std::string_view name);  // null: unknown name

}  // namespace kinetrel::emulate

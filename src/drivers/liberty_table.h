// A LibertyTracker behind the calls of the device library.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "drivers/liberty_line.h"
#include "vendor/pdi_table.h"

namespace kinetrel {

// What the table's functions work on.
struct PdiDevice {
  virtual ~PdiDevice() = default;

  std::unique_ptr<LibertyTracker> tracker;
  PdiConnection kind = PdiConnection::Serial;  // how the tracker is connected, once it is
  int port = 1;
  unsigned baud = 115200;
  std::string result = "nothing called yet";
};

// Without createDevice and destroyDevice: the caller makes and owns the device.
const PdiTable& TrackerTable();

}  // namespace kinetrel

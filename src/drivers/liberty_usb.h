// The Liberty or Patriot on USB, without the vendor's library.
#pragma once

#include <memory>
#include <string>

#include "drivers/liberty_line.h"

namespace kinetrel {

// name  "usb" for the only unit, or "usb:1-2.3"; see devices/polhemus_usb.h.
// tap   sees the line; may be null.
std::unique_ptr<LibertyTracker> MakeUsbLiberty(std::string name, std::shared_ptr<LineTap> tap);

}  // namespace kinetrel

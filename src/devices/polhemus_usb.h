// The trackers of Polhemus on USB: which devices they are, and finding the one that is meant.
//
// They carry the bytes of their serial lines. The descriptors have no serial number, so a unit is
// named by where it is plugged in.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/usb_line.h"

namespace kinetrel {

// The units that speak one command set.
enum class PolhemusFamily { Liberty, Fastrak };

struct PolhemusUnit {
  std::unique_ptr<UsbLine> line;
  std::string name;        // "usb:1-2.3"
  const char* model = "";  // "Polhemus Patriot"
  bool isPatriot = false;  // two stations, one rate
  std::uint16_t product = 0;
};

// True for "usb" and "usb:1-2.3": bus 1, port 2, and port 3 of the hub there.
bool IsUsbName(std::string_view name);

// Opens the unit of that name; "usb" means the only one.
//
// why      one line for a person about a failure: what was looked for, what is there, what helps.
// product  of the unit that was there before; another product is refused. 0: any of the family.
// Errors   NotFound: no such unit, or its firmware is not loaded. Invalid: several units and no
//          name. Else as UsbLine::Open.
Result<PolhemusUnit> OpenPolhemusUnit(PolhemusFamily family, const std::string& name,
                                      std::string& why, std::uint16_t product = 0);

// What is known of a unit without opening it.
struct PolhemusUnitFacts {
  std::string name;  // for OpenPolhemusUnit: "usb:1-2"
  std::string model;
  std::string advice;  // what it needs before it can be used; empty: nothing
  int deviceType = 0;  // the number of option -d
};

// Nothing when the device is not such a tracker.
std::optional<PolhemusUnitFacts> DescribePolhemusUnit(const UsbDevice& device);

}  // namespace kinetrel

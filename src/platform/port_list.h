// The machine's serial ports, told without opening one of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/open_files.h"

namespace kinetrel {

// The USB device that a port belongs to.
struct UsbAdapter {
  std::uint16_t vendor = 0;
  std::uint16_t product = 0;
  std::string maker = {};  // as the device names it, as the next two; may be empty
  std::string name = {};
  std::string serial = {};
};

enum class PortKind {
  Port,            // of the machine itself, or of an adapter
  PseudoTerminal,  // its other end is a program
  NotAPort,        // a file, a directory, or a device that is not a terminal
  Missing
};

struct PortEntry {
  std::string path = {};        // that opens it: "/dev/ttyUSB0", "COM3"
  std::string stableName = {};  // that survives a replug; empty: it has none
  std::string driver = {};      // of the system
  PortKind kind = PortKind::Port;
  std::optional<UsbAdapter> usb = {};
  std::string refusal = {};  // why this account may not open it, and what helps; empty: it may
  // As OpenFiles tells.
  std::vector<FileUser> holders = {};
};

// All ports with hardware behind them, in the order of their names. On Windows refusal and holders
// stay empty: only opening a port tells.
std::vector<PortEntry> ListPorts();

// What the system tells of the port with this name, which may be a link, a pseudo-terminal or
// "COM<n>". Such a port need not be on the list.
PortEntry DescribePort(const std::string& name);

}  // namespace kinetrel

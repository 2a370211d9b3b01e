#include "platform/port_list.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "platform/posix/folders.h"
#include "platform/posix/serial_calls.h"
#include "platform/serial_line.h"
#include "platform/status.h"

namespace kinetrel {
namespace {

namespace fs = std::filesystem;

std::uint16_t HexNumber(const std::string& text) {
  std::uint16_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, 16);
  return number;
}

std::string Real(const std::string& path) {
  std::error_code error;
  const fs::path real = fs::canonical(path, error);
  return error ? path : real.string();
}

// ---- What the kernel tells of a port
// -------------------------------------------------------------

std::optional<UsbAdapter> AdapterOf(const fs::path& device) {
  for (fs::path at = device; at.has_relative_path(); at = at.parent_path()) {
    std::error_code error;
    if (!fs::exists(at / "idVendor", error)) continue;
    return UsbAdapter{HexNumber(FirstLineOf(at / "idVendor")),
                      HexNumber(FirstLineOf(at / "idProduct")), FirstLineOf(at / "manufacturer"),
                      FirstLineOf(at / "product"), FirstLineOf(at / "serial")};
  }
  return std::nullopt;
}

// Names of ports that exist without hardware have the type 0.
bool HasHardware(const fs::path& entry) {
  std::error_code error;
  if (!fs::exists(entry / "device", error)) return false;
  return !fs::exists(entry / "type", error) || FirstLineOf(entry / "type") != "0";
}

void AddKernelFacts(PortEntry& port, const fs::path& entry) {
  std::error_code error;
  const fs::path device = fs::canonical(entry / "device", error);
  if (error) return;
  port.driver = fs::path(TargetOf(device / "driver")).filename().string();
  port.usb = AdapterOf(device);
}

std::string StableName(const std::string& real) {
  std::string stable;
  ForEntries("/dev/serial/by-id", [&](const fs::path& link) {
    if (Real(link.string()) == real) stable = link.string();
  });
  return stable;
}

std::string RefusalOf(const std::string& path) {
  if (::access(path.c_str(), R_OK | W_OK) == 0 || errno != EACCES) return {};
  return SerialLine::ExplainOpenFailure(path, {Error::Denied, errno, "open the serial line"});
}

PortKind KindOf(const std::string& path) {
  struct stat found {};
  if (::stat(path.c_str(), &found) != 0) return PortKind::Missing;
  if (!S_ISCHR(found.st_mode)) return PortKind::NotAPort;
  if (IsPseudoTerminal(found)) return PortKind::PseudoTerminal;
  const fs::path kernel = "/sys/dev/char/" + std::to_string(major(found.st_rdev)) + ":" +
                          std::to_string(minor(found.st_rdev));
  std::error_code error;
  const std::string subsystem = fs::path(TargetOf(kernel / "subsystem")).filename().string();
  return subsystem.empty() || subsystem == "tty" ? PortKind::Port : PortKind::NotAPort;
}

}  // namespace

std::vector<PortEntry> ListPorts() {
  std::vector<PortEntry> ports;
  const OpenFiles open;
  ForEntries("/sys/class/tty", [&](const fs::path& entry) {
    if (!HasHardware(entry)) return;
    PortEntry port{.path = "/dev/" + entry.filename().string()};
    if (KindOf(port.path) != PortKind::Port) return;
    AddKernelFacts(port, entry);
    port.stableName = StableName(port.path);
    port.refusal = RefusalOf(port.path);
    port.holders = open.UsersOf(port.path);
    ports.push_back(std::move(port));
  });
  std::ranges::sort(ports, {}, &PortEntry::path);
  return ports;
}

PortEntry DescribePort(const std::string& name) {
  PortEntry port{.path = SerialDevicePath(name)};
  port.kind = KindOf(port.path);
  if (port.kind == PortKind::Missing || port.kind == PortKind::NotAPort) return port;
  const std::string real = Real(port.path);
  if (port.kind == PortKind::Port) {
    AddKernelFacts(port, "/sys/class/tty/" + fs::path(real).filename().string());
    port.stableName = StableName(real);
  }
  port.refusal = RefusalOf(port.path);
  port.holders = OpenFiles().UsersOf(port.path);
  return port;
}

}  // namespace kinetrel

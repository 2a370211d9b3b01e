#include "platform/port_list.h"

#include <windows.h>

#include <algorithm>
#include <array>

#include "platform/serial_line.h"
#include "platform/win32/device_list.h"
#include "platform/win32/serial_calls.h"

namespace kinetrel {
namespace {

// The class of ports, {4D36E978-E325-11CE-BFC1-08002BE10318}.
constexpr GUID kPorts = {
    0x4D36E978, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

class Key {
 public:
  explicit Key(HKEY key) : key_(key) {}
  ~Key() {
    if (*this) ::RegCloseKey(key_);
  }
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;

  explicit operator bool() const {
    return key_ != nullptr && reinterpret_cast<HANDLE>(key_) != INVALID_HANDLE_VALUE;
  }
  HKEY get() const { return key_; }

 private:
  HKEY key_;
};

// The names of all serial ports, as their drivers have entered them: also those that the list of
// devices does not know, such as Wine's.
std::vector<PortEntry> EnteredPorts() {
  std::vector<PortEntry> ports;
  HKEY opened = nullptr;
  ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, "HARDWARE\\DEVICEMAP\\SERIALCOMM", 0, KEY_READ, &opened);
  const Key key(opened);
  if (!key) return ports;
  for (DWORD i = 0;; ++i) {
    std::array<char, 256> name{};
    std::array<char, 256> value{};
    auto nameSize = static_cast<DWORD>(name.size());
    auto size = static_cast<DWORD>(value.size() - 1);
    DWORD type = 0;
    const LSTATUS read = ::RegEnumValueA(key.get(), i, name.data(), &nameSize, nullptr, &type,
                                         reinterpret_cast<BYTE*>(value.data()), &size);
    if (read != ERROR_SUCCESS) break;
    if (type == REG_SZ) ports.push_back({.path = value.data()});
  }
  return ports;
}

std::string PortName(const DeviceList& list, SP_DEVINFO_DATA& device) {
  const Key key(
      ::SetupDiOpenDevRegKey(list.get(), &device, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_QUERY_VALUE));
  std::array<char, 256> name{};
  auto size = static_cast<DWORD>(name.size() - 1);
  if (!key || ::RegQueryValueExA(key.get(), "PortName", nullptr, nullptr,
                                 reinterpret_cast<BYTE*>(name.data()), &size) != ERROR_SUCCESS) {
    return {};
  }
  return name.data();
}

// The last part of an instance is the serial number, unless the system made it up: then it has '&'.
std::string SerialNumber(const std::string& instance) {
  const std::size_t at = instance.rfind('\\');
  if (at == std::string::npos || instance.find('&', at) != std::string::npos) return {};
  return instance.substr(at + 1);
}

void AddDevices(std::vector<PortEntry>& ports) {
  const DeviceList list(&kPorts, nullptr, 0);
  SP_DEVINFO_DATA info;
  for (DWORD i = 0; list.Device(i, info); ++i) {
    const auto port = std::ranges::find(ports, PortName(list, info), &PortEntry::path);
    if (port == ports.end()) continue;
    port->driver = list.Text(info, SPDRP_SERVICE);
    const std::string hardware = list.Text(info, SPDRP_HARDWAREID);
    const auto vendor = HexAfter(hardware, "VID_");
    const auto product = HexAfter(hardware, "PID_");
    if (!vendor || !product) continue;
    port->usb = UsbAdapter{*vendor, *product, list.Text(info, SPDRP_MFG),
                           list.Text(info, SPDRP_DEVICEDESC), SerialNumber(list.Instance(info))};
  }
}

}  // namespace

std::vector<PortEntry> ListPorts() {
  std::vector<PortEntry> ports = EnteredPorts();
  AddDevices(ports);
  std::ranges::sort(ports, [](const PortEntry& a, const PortEntry& b) {
    const auto numberA = ComNumber(a.path).value_or(0);
    const auto numberB = ComNumber(b.path).value_or(0);
    return numberA != numberB ? numberA < numberB : a.path < b.path;
  });
  return ports;
}

PortEntry DescribePort(const std::string& name) {
  constexpr std::size_t kPrefix = 4;  // of a path
  const std::string real = SerialDevicePath(name).substr(kPrefix);
  for (PortEntry& port : ListPorts()) {
    if (port.path == real) return port;
  }
  return {.path = name};
}

}  // namespace kinetrel

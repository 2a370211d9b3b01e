#include "platform/win32/device_list.h"

#include <array>
#include <cstdlib>
#include <cstring>

namespace kinetrel {

DeviceList::DeviceList(const GUID* kind, const char* which, DWORD flags)
    : list_(::SetupDiGetClassDevsA(kind, which, nullptr, flags | DIGCF_PRESENT)) {}

DeviceList::~DeviceList() {
  if (list_ != INVALID_HANDLE_VALUE) ::SetupDiDestroyDeviceInfoList(list_);
}

bool DeviceList::Device(DWORD index, SP_DEVINFO_DATA& device) const {
  device = {};
  device.cbSize = sizeof device;
  return ::SetupDiEnumDeviceInfo(list_, index, &device) != FALSE;
}

std::string DeviceList::Text(SP_DEVINFO_DATA& device, DWORD property) const {
  std::array<char, 1024> text{};
  const bool read = ::SetupDiGetDeviceRegistryPropertyA(
                        list_, &device, property, nullptr, reinterpret_cast<BYTE*>(text.data()),
                        static_cast<DWORD>(text.size() - 1), nullptr) != FALSE;
  return read ? std::string(text.data()) : std::string();
}

std::string DeviceList::Instance(SP_DEVINFO_DATA& device) const {
  std::array<char, 512> instance{};
  const bool told =
      ::SetupDiGetDeviceInstanceIdA(list_, &device, instance.data(),
                                    static_cast<DWORD>(instance.size()), nullptr) != FALSE;
  return told ? std::string(instance.data()) : std::string();
}

std::optional<std::uint16_t> HexAfter(const std::string& text, const char* mark) {
  const std::size_t at = text.find(mark);
  if (at == std::string::npos) return std::nullopt;
  const std::string digits = text.substr(at + std::strlen(mark), 4);
  return static_cast<std::uint16_t>(std::strtoul(digits.c_str(), nullptr, 16));
}

}  // namespace kinetrel

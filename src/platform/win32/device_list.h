// The devices that the system knows of, and what it tells of each.
#pragma once

#include <windows.h>

#include <setupapi.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kinetrel {

class DeviceList {
 public:
  // Those that are plugged in.
  //
  // kind, which, flags  as SetupDiGetClassDevs takes them.
  DeviceList(const GUID* kind, const char* which, DWORD flags);
  ~DeviceList();
  DeviceList(const DeviceList&) = delete;
  DeviceList& operator=(const DeviceList&) = delete;

  // False: there are fewer.
  bool Device(DWORD index, SP_DEVINFO_DATA& device) const;

  // The first string of a property; empty when the device lacks it.
  std::string Text(SP_DEVINFO_DATA& device, DWORD property) const;

  std::string Instance(SP_DEVINFO_DATA& device) const;  // empty: the system does not tell

  HDEVINFO get() const { return list_; }

 private:
  HDEVINFO list_;
};

// The number in four hexadecimal digits after `mark`.
std::optional<std::uint16_t> HexAfter(const std::string& text, const char* mark);

}  // namespace kinetrel

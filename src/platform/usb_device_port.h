// A USB device that exists only for programs that are told of it, and whose far end is this
// program: it plays the device. Linux only, through umockdev: a library put before the host's C
// library shows it the device and passes its calls on to us. It stands for the kernel, not for the
// cable: what the host asks of its kernel's USB is answered here.
//
// Threads  see DevicePort; StallNext, StallNextCommand, UnplugAfter and SetLongestTransfer may be
//          called by any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/device_port.h"
#include "platform/status.h"

namespace kinetrel {

// What the device says of itself.
struct UsbIdentity {
  std::uint16_t vendor = 0;
  std::uint16_t product = 0;
  bool highSpeed = true;  // packets of 512 bytes, else of 64
  struct Endpoint {
    std::uint8_t address;  // bit 7: in
    bool interrupt;        // else bulk
  };
  std::vector<Endpoint> endpoints = {};
  std::uint8_t answers = 0;   // the endpoint in which the device's bytes go
  bool usedByDriver = false;  // a driver of the host's system has the interface when it appears
};

class UsbDevicePort : public DevicePort {
 public:
  // A device that stalls ends its transfers with an error until the host resets the endpoint.
  virtual void StallNext() = 0;
  virtual void StallNextCommand() = 0;  // a transfer from the host, none of which is taken

  // Pulls the plug when it has given that many of the bytes that it is given next at once.
  virtual void UnplugAfter(std::size_t bytes) = 0;

  // No transfer to the host gets more than so many bytes; 0: as many as it has room for.
  virtual void SetLongestTransfer(std::size_t bytes) = 0;

  // A driver of the host's system has the interface now.
  virtual bool IsUsedByDriver() const = 0;

  // From the next Plug on.
  virtual void SetIdentity(UsbIdentity identity) = 0;
};

// A bus with devices that this program plays.
class UsbBus {
 public:
  // Unsupported: umockdev is not installed, or this build is without it.
  static Result<std::shared_ptr<UsbBus>> Make();
  virtual ~UsbBus() = default;
  UsbBus(const UsbBus&) = delete;
  UsbBus& operator=(const UsbBus&) = delete;

  // What a host needs in its environment to see the bus.
  virtual std::vector<std::pair<std::string, std::string>> Environment() const = 0;

  // Plugs a device in at port 1 to 15 of bus 1. Its path() is "usb:1-<port>". The device keeps the
  // bus alive.
  virtual Result<std::unique_ptr<UsbDevicePort>> Attach(unsigned port, UsbIdentity identity) = 0;

 protected:
  UsbBus() = default;
};

}  // namespace kinetrel

// The pipes of one USB device: bulk transfers to the endpoints of its interface 0.
//
// On Linux the system's libusb-1.0 is loaded when it is first needed, so a program without USB
// devices runs without it. On Windows the device must be bound to the system's driver WinUSB.
//
// Threads  one at a time.
// Memory   Read, Write, the waits and the queue length allocate nothing. libusb takes and gives
//          back a small block with each transfer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/byte_line.h"
#include "platform/status.h"

namespace kinetrel {

struct UsbDevice {
  std::string port;  // where it is plugged in: the bus, then the ports on the way: "1-2.3"
  std::uint16_t vendor = 0;
  std::uint16_t product = 0;
};

// Endpoint addresses, as in the device's descriptors.
struct UsbPipes {
  std::uint8_t out = 0;
  std::uint8_t in = 0;
  std::uint8_t interruptIn = 0;  // a second way in, whose bytes join those of `in`; 0: none
};

// The devices on the machine's buses, without hubs.
//
// Errors  Unsupported: this system has no USB, or libusb-1.0 is not installed.
Result<std::vector<UsbDevice>> ListUsbDevices();

class UsbLine final : public ByteLine {
 public:
  // Opens the device for this program alone: takes interface 0, from a driver of the system if one
  // has it, and begins to receive.
  //
  // Errors  NotFound: no such device on that port now. Busy: another program has it. Denied: this
  //         account may not use it. Invalid: it lacks one of the endpoints.
  static Result<std::unique_ptr<UsbLine>> Open(const UsbDevice& device, const UsbPipes& pipes);

  // One line for a person: why listing or opening failed and what would help.
  static std::string ExplainFailure(const Status& failure);

  // Ends all transfers, within 1 s, and gives the interface back.
  ~UsbLine() override;

  Status PurgeOutput() override { return {}; }  // a write ends when the device has the bytes
  Status DrainOutput() override { return {}; }

 private:
  struct Os;  // posix/usb_line.cpp, win32/usb_line.cpp
  explicit UsbLine(std::unique_ptr<Os> os);

  Result<std::size_t> Transmit(std::span<const std::byte> from) override;
  Result<std::size_t> Receive(std::span<std::byte> into, Milliseconds atMost) override;
  Status PurgeDriver() override;

  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

// A port of which this program is the far end: it plays the device. The host is another program.
//
// Threads  one at a time, but for Interrupt.
// Memory   Read, Write and Wait allocate nothing.
#pragma once

#include <chrono>
#include <cstddef>
#include <span>
#include <string>

#include "platform/status.h"

namespace kinetrel {

class DevicePort {
 public:
  virtual ~DevicePort() = default;
  DevicePort(const DevicePort&) = delete;
  DevicePort& operator=(const DevicePort&) = delete;

  // The name that a host opens; empty while unplugged. It may change with Plug, and when a host
  // dies without closing the port: ask again after every Read.
  virtual const std::string& path() const = 0;

  // Pulls the plug: the host sees a hang-up, and the name disappears.
  virtual void Unplug() = 0;
  virtual Status Plug(unsigned baud) = 0;  // plugs it in again, with a line of that rate if any
  virtual bool IsPlugged() const = 0;

  virtual bool HasHost() const = 0;       // a host has the port open; noticed within 10 ms
  virtual unsigned HostBaud() const = 0;  // the rate that the host set; 0: unplugged, or no rates

  // Reads the bytes that are there and returns their number, which may be 0; never waits.
  virtual std::size_t Read(std::span<std::byte> into) = 0;

  // Returns the number of bytes taken: fewer than given when the host reads too slowly. Never
  // waits. Without a host all bytes are taken and lost.
  virtual std::size_t Write(std::span<const std::byte> from) = 0;

  // Waits until bytes can be read, a host opens or closes the port, Interrupt is called, or
  // `atMost` has passed.
  virtual void Wait(std::chrono::nanoseconds atMost) = 0;

  virtual void Interrupt() = 0;  // ends the current Wait, or else the next; any thread may call it

 protected:
  DevicePort() = default;
  DevicePort(DevicePort&&) noexcept = default;
  DevicePort& operator=(DevicePort&&) noexcept = default;
};

}  // namespace kinetrel

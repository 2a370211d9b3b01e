// A serial port whose far end is this program: it plays the device.
//
// The host, another program, opens the near end by its path as its serial line. As on a real line,
// bytes that are written while no host has it open are lost; they do not wait for the next host.
//
// Threads  one at a time, but for Interrupt.
// Memory   Read, Write and Wait allocate nothing.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "platform/status.h"

namespace kinetrel {

class PseudoTerminal {
 public:
  // Makes a near end that passes bytes unchanged, at `baud`; it does so before its name is known.
  // NoSpace: the system's limit of pseudo-terminals is reached.
  static Result<PseudoTerminal> Open(unsigned baud);

  PseudoTerminal(PseudoTerminal&&) noexcept;
  PseudoTerminal& operator=(PseudoTerminal&&) noexcept;
  ~PseudoTerminal();

  // Of the near end; empty while unplugged. It may change with Plug, and when a host dies without
  // closing the port: ask again after every Read.
  const std::string& path() const;

  // Pulls the plug: the host sees a hang-up, and the name disappears.
  void Unplug();
  Status Plug(unsigned baud);  // plugs it in again, as Open does
  bool IsPlugged() const;

  bool HasHost() const;       // a host has the near end open; noticed within 10 ms
  unsigned HostBaud() const;  // the rate that the host set; 0 while unplugged

  // Reads the bytes that are there and returns their number, which may be 0; never waits.
  std::size_t Read(std::span<std::byte> into);

  // Returns the number of bytes taken: fewer than given when the host reads too slowly. Never
  // waits. Without a host all bytes are taken and lost.
  std::size_t Write(std::span<const std::byte> from);

  // Waits until bytes can be read, a host opens or closes the near end, Interrupt is called, or
  // `atMost` has passed.
  void Wait(std::chrono::nanoseconds atMost);

  void Interrupt();  // ends the current Wait, or else the next one; any thread may call it

 private:
  struct Os;  // posix/pseudo_terminal.cpp, win32/pseudo_terminal.cpp
  explicit PseudoTerminal(std::unique_ptr<Os> os);
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

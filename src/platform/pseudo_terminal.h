// A serial port whose far end is this program: it plays the device.
//
// What another program opens as its serial line is the near end, by its path. Only while somebody
// has it open do bytes go anywhere, as on a real line: what is written to nobody is lost, and never
// waits there for the next one to open it.
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
  // The near end passes bytes as they are, at `baud`, before anybody can know its name.
  // NoSpace: the system has no more of them.
  static Result<PseudoTerminal> Open(unsigned baud);

  PseudoTerminal(PseudoTerminal&&) noexcept;
  PseudoTerminal& operator=(PseudoTerminal&&) noexcept;
  ~PseudoTerminal();

  // Of the near end; empty while unplugged. A new plug may have another one, and so may a port
  // whose user died without closing it: look again after every Read.
  const std::string& path() const;

  // Pulls the plug: who has the near end open finds that it hung up, and its name is gone.
  void Unplug();
  Status Plug(unsigned baud);  // in again, as Open
  bool Plugged() const;

  bool HostPresent() const;   // somebody has the near end open; known to 10 ms
  unsigned HostBaud() const;  // the rate it set; 0 while unplugged

  // The bytes that are there, none included; never waits.
  std::size_t Read(std::span<std::byte> into);

  // Returns the bytes taken, fewer than given when the host reads too slowly; never waits. With no
  // host present all are taken, and lost.
  std::size_t Write(std::span<const std::byte> from);

  // Until there are bytes to read, the host comes or goes, somebody interrupts, or `atMost` is
  // over.
  void Wait(std::chrono::nanoseconds atMost);

  void Interrupt();  // ends the Wait that runs, or the next one. Any thread

 private:
  struct Os;  // posix/pseudo_terminal.cpp, win32/pseudo_terminal.cpp
  explicit PseudoTerminal(std::unique_ptr<Os> os);
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

// A serial port whose far end is this program: it plays the device.
//
// The host, another program, opens the near end by its path as its serial line. As on a real line,
// bytes that are written while no host has it open are lost; they do not wait for the next host.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "platform/device_port.h"
#include "platform/status.h"

namespace kinetrel {

class PseudoTerminal final : public DevicePort {
 public:
  // Makes a near end that passes bytes unchanged, at `baud`; it does so before its name is known.
  // NoSpace: the system's limit of pseudo-terminals is reached.
  static Result<PseudoTerminal> Open(unsigned baud);

  PseudoTerminal(PseudoTerminal&&) noexcept;
  PseudoTerminal& operator=(PseudoTerminal&&) noexcept;
  ~PseudoTerminal() override;

  const std::string& path() const override;
  void Unplug() override;
  Status Plug(unsigned baud) override;
  bool IsPlugged() const override;
  bool HasHost() const override;
  unsigned HostBaud() const override;
  std::size_t Read(std::span<std::byte> into) override;
  std::size_t Write(std::span<const std::byte> from) override;
  void Wait(std::chrono::nanoseconds atMost) override;
  void Interrupt() override;

 private:
  // On Windows a real line stands for a pseudo-terminal.
  friend Result<std::unique_ptr<DevicePort>> OpenSerialDevicePort(const std::string& name,
                                                                  unsigned baud);
  struct Os;  // posix/pseudo_terminal.cpp, win32/pseudo_terminal.cpp
  explicit PseudoTerminal(std::unique_ptr<Os> os);
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

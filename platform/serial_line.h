// One asynchronous serial line of the machine.
//
// The names, time-outs and settings are those of the serial world, not of one system. A
// pseudo-terminal is a serial line too; what it lacks (modem lines) is no error.
//
// Threads  one at a time.
// Memory   Read, Write, Wait and the queue length allocate nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

enum class Parity : std::uint8_t { None = 0, Odd = 1, Even = 2, Mark = 3, Space = 4 };
enum class StopBits : std::uint8_t { One = 0, OneAndHalf = 1, Two = 2 };
enum class ModemControl : std::uint8_t { Off = 0, On = 1, Handshake = 2, Toggle = 3 };

struct LineSettings {
  unsigned baud = 0;  // bits a second; any rate the hardware can make
  std::uint8_t byteSize = 8;
  Parity parity = Parity::None;
  StopBits stopBits = StopBits::One;
  ModemControl rts = ModemControl::Off;
  ModemControl dtr = ModemControl::Off;
  bool ctsOutputFlow = false;
  bool dsrOutputFlow = false;
  bool dsrSensitivity = false;
  bool xonXoffOutput = false;
  bool xonXoffInput = false;
  bool continueAfterXoff = false;
  std::uint8_t xonChar = 0xF7;
  std::uint8_t xoffChar = 0xF8;
  std::uint16_t xonLimit = 2048;
  std::uint16_t xoffLimit = 512;
};

struct SerialCapabilities {
  bool serialLine = false;  // takes speed, data, stop and parity settings
  bool rtsCts = false;      // has the modem lines, and a settable handshake
};

// All in ms. interval kReturnAtOnce with zeros: a read returns at once with what is there.
// Otherwise a read ends after multiplier x count + constant (never, when both are 0), or when
// `interval` (if not 0) passes after a byte; the interval runs from the first byte on.
struct ReadTimeouts {
  static constexpr std::uint32_t kReturnAtOnce = 0xFFFFFFFF;
  std::uint32_t interval = 0;
  std::uint32_t multiplier = 0;
  std::uint32_t constant = 0;
};

class SerialLine {
 public:
  // Opens the line for this program alone.
  //
  // name    "COM<n>", or the system's own path of the device.
  // NotFound: no such device. Busy: another program has it. Denied: this account may not, and
  // Describe() says what would help. Invalid: the name is that of something else than a
  // character device.
  static Result<SerialLine> Open(const std::string& name);

  SerialLine(SerialLine&&) noexcept;
  SerialLine& operator=(SerialLine&&) noexcept;
  ~SerialLine();  // closes, and leaves the line as it was found

  Result<SerialCapabilities> Capabilities() const;
  Result<LineSettings> Settings() const;
  Status Apply(const LineSettings& settings);
  Status SetReadTimeouts(const ReadTimeouts& timeouts);

  // Reads up to into.size() bytes under the read time-outs; 0 bytes is no failure.
  // Closed: the far end hung up or the device was unplugged.
  Result<std::size_t> Read(std::span<std::byte> into);

  // Writes all of `from` or fails; gives up after 1 s of a line that takes nothing.
  Result<std::size_t> Write(std::span<const std::byte> from);

  Result<std::size_t> InputQueueLength() const;  // asked of the system, never guessed

  // Waits until `count` bytes are received. TimedOut: they are not all there. Closed: as Read.
  Status WaitForInput(std::size_t count, Milliseconds timeout) const;
  Status WaitForInput() const;  // for any byte, without a time-out

  Status PurgeInput();
  Status PurgeOutput();
  Status DrainOutput();  // waits until all is sent, 1 s at the most

  Status SetDtr(bool on);  // Unsupported where the line has no modem lines
  Status SetRts(bool on);

 private:
  struct Os;  // posix/serial_line.cpp, win32/serial_line.cpp
  explicit SerialLine(std::unique_ptr<Os> os);
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

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

// What a system cannot do of these is left out without failing: Linux has no handshake on DTR and
// DSR, no limits for XON/XOFF, and one switch for both directions of the RTS/CTS handshake.
struct LineSettings {
  unsigned baud = 0;  // bits a second; any rate the hardware can make
  std::uint8_t byteSize = 8;
  Parity parity = Parity::None;
  StopBits stopBits = StopBits::One;
  ModemControl rts = ModemControl::Off;  // Off lowers the line
  ModemControl dtr = ModemControl::Off;  // Off leaves it as Open (raised) or SetDtr put it
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
  std::uint32_t interval = kReturnAtOnce;
  std::uint32_t multiplier = 0;
  std::uint32_t constant = 0;
};

class SerialLine {
 public:
  // Opens the line for this program alone. Bytes pass as they are; rate and framing are as found,
  // DTR and RTS are raised, and reads return at once.
  //
  // name    "COM<n>", or the system's own path of the device.
  // NotFound: no such device, or a name without hardware behind it. Busy: another program has it.
  // Denied: this account may not. Invalid: the name is that of something else than a character
  // device. A character device that is no serial line opens; its Capabilities tell.
  static Result<SerialLine> Open(const std::string& name);

  // One line for a person: why Open(name) failed and what would help, such as the group to join.
  static std::string ExplainOpenFailure(const std::string& name, const Status& failure);

  SerialLine(SerialLine&&) noexcept;
  SerialLine& operator=(SerialLine&&) noexcept;

  // Sends what was written, for 1 s at the most, then closes; the line is left as it was found.
  ~SerialLine();

  Result<SerialCapabilities> Capabilities() const;
  Result<LineSettings> Settings() const;

  // In force at once, also for bytes that wait to be sent. Invalid: impossible settings.
  // Unsupported: the hardware cannot make the rate (within 3 %).
  Status Apply(const LineSettings& settings);
  Status SetReadTimeouts(const ReadTimeouts& timeouts);

  // Asks the system to note received bytes, where it does so only on request: WaitForInput needs
  // it.
  Status WatchInput();

  // Reads up to into.size() bytes under the read time-outs; 0 bytes is no failure.
  // Closed: the far end hung up or the device was unplugged. Bytes read before that are returned
  // first; the next call tells.
  Result<std::size_t> Read(std::span<std::byte> into);

  // Returns the bytes taken: fewer than asked when the line then took nothing for 1 s or failed.
  // TimedOut, Closed: none was taken.
  Result<std::size_t> Write(std::span<const std::byte> from);

  Result<std::size_t> InputQueueLength() const;  // asked of the system, never guessed

  // Waits until `count` bytes are received; the system keeps some 4000. Wakes when they arrive.
  // kForever: no time-out. TimedOut: they are not all there. Closed: as Read, and at once.
  Status WaitForInput(std::size_t count, Milliseconds timeout) const;

  Status PurgeInput();
  Status PurgeOutput();  // what has already left for the far end is beyond recall
  Status DrainOutput();  // waits until all is sent; TimedOut after 1 s

  Status SetDtr(bool on);  // Unsupported where the line has no modem lines
  Status SetRts(bool on);

 private:
  struct Os;  // posix/serial_line.cpp, win32/serial_line.cpp
  explicit SerialLine(std::unique_ptr<Os> os);
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

// One asynchronous serial line of the machine.
//
// Names, time-outs and settings are those of serial lines in general. A pseudo-terminal counts as a
// serial line. It has no modem lines, and that is not an error.
//
// Threads  one at a time.
// Memory   Read, Write, the waits and the queue length allocate nothing.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/byte_line.h"
#include "platform/status.h"

namespace kinetrel {

enum class Parity : std::uint8_t { None = 0, Odd = 1, Even = 2, Mark = 3, Space = 4 };
enum class StopBits : std::uint8_t { One = 0, OneAndHalf = 1, Two = 2 };
enum class ModemControl : std::uint8_t { Off = 0, On = 1, Handshake = 2, Toggle = 3 };

// A setting that the system does not know is ignored. Linux has no handshake on DTR and DSR, no
// limits for XON/XOFF, and one switch for both directions of the RTS/CTS handshake.
struct LineSettings {
  unsigned baud = 0;  // bits a second; any rate that the hardware supports
  std::uint8_t byteSize = 8;
  Parity parity = Parity::None;
  StopBits stopBits = StopBits::One;
  ModemControl rts = ModemControl::Off;  // Off lowers the line
  ModemControl dtr = ModemControl::Off;  // Off keeps the state that Open (raised) or SetDtr chose
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

// n when the name is exactly "COM<n>".
inline std::optional<unsigned> ComNumber(const std::string& name) {
  if (!name.starts_with("COM")) return std::nullopt;
  unsigned number = 0;
  const char* const end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(name.data() + 3, end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

class SerialLine final : public ByteLine {
 public:
  // Opens the line for this program alone. Bytes pass unchanged; rate and framing stay as found,
  // DTR and RTS are raised, and reads return at once.
  //
  // name    "COM<n>", or the system's own path of the device.
  // Errors  NotFound: no such device, or no hardware behind the name. Busy: another program has it.
  //         Denied: this account may not use it. Invalid: the name belongs to a file or a pipe.
  // Open also succeeds on other character devices. Check Capabilities.
  static Result<SerialLine> Open(const std::string& name);

  // One line for a person: why Open(name) failed and what would help, such as the group to join.
  static std::string ExplainOpenFailure(const std::string& name, const Status& failure);

  SerialLine(SerialLine&&) noexcept;
  SerialLine& operator=(SerialLine&&) noexcept;

  // Sends what was written, for 1 s at most, restores the settings that Open found, and closes.
  ~SerialLine() override;

  Result<SerialCapabilities> Capabilities() const;
  Result<LineSettings> Settings() const;

  // Takes effect at once, also for bytes that wait to be sent. Invalid: no line can have these
  // settings. Unsupported: the hardware cannot make the rate (within 3 %).
  Status Apply(const LineSettings& settings);

  // Received bytes with a wrong stop bit, and breaks, since the driver was started.
  // Unsupported: a pseudo-terminal, a driver that does not count them, and Windows.
  Result<unsigned> FramingErrors() const;

  // Tells the system to report received bytes. Windows needs it before WaitForInput.
  Status WatchInput();

  Status PurgeOutput() override;
  Status DrainOutput() override;

  Status SetDtr(bool on);  // Unsupported where the line has no modem lines
  Status SetRts(bool on);

 private:
  struct Os;  // posix/serial_line.cpp, win32/serial_line.cpp
  explicit SerialLine(std::unique_ptr<Os> os);

  Result<std::size_t> Transmit(std::span<const std::byte> from) override;
  Result<std::size_t> Receive(std::span<std::byte> into, Milliseconds atMost) override;
  Status PrepareReads() override;
  Status PurgeDriver() override;
  void NapFor(std::size_t bytes) override;

  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

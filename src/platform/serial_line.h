// One asynchronous serial line of the machine.
//
// Names, time-outs and settings are those of serial lines in general. A pseudo-terminal counts as a
// serial line. It has no modem lines, and that is not an error.
//
// Received bytes are read ahead: one system call takes all that the system holds, and the reads
// that follow take from memory. Lengths, waits and purges count these bytes too.
//
// Threads  one at a time.
// Memory   Read, Write, the waits and the queue length allocate nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/clock.h"
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

// When a read ends, in ms. With interval kReturnAtOnce and zeros it returns the bytes that are
// there, at once. Otherwise it ends after multiplier x count + constant (never, when both are 0),
// or when `interval` (if not 0) has passed since the last byte. Before the first byte no interval
// runs.
struct ReadTimeouts {
  static constexpr std::uint32_t kReturnAtOnce = 0xFFFFFFFF;
  std::uint32_t interval = kReturnAtOnce;
  std::uint32_t multiplier = 0;
  std::uint32_t constant = 0;
};

// n when the name is exactly "COM<n>".
std::optional<unsigned> ComNumber(const std::string& name);

class SerialLine {
 public:
  static constexpr std::size_t kMostReadAhead = 4096;  // bytes

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
  ~SerialLine();

  Result<SerialCapabilities> Capabilities() const;
  Result<LineSettings> Settings() const;

  // Takes effect at once, also for bytes that wait to be sent. Invalid: no line can have these
  // settings. Unsupported: the hardware cannot make the rate (within 3 %).
  Status Apply(const LineSettings& settings);
  Status SetReadTimeouts(const ReadTimeouts& timeouts);

  // Tells the system to report received bytes. Windows needs it before WaitForInput.
  Status WatchInput();

  // Reads up to into.size() bytes under the read time-outs; 0 bytes is a success.
  // Closed: the far end hung up or the device was unplugged. Bytes received before that are
  // returned first; the call after them reports it.
  Result<std::size_t> Read(std::span<std::byte> into);

  // Returns the number of bytes taken. It is below from.size() when the line then took nothing for
  // 1 s or failed. TimedOut, Closed: none was taken.
  Result<std::size_t> Write(std::span<const std::byte> from);

  // Bytes read ahead and not yet taken, without asking the system.
  std::size_t HeldAhead() const { return end_ - begin_; }

  // Bytes received and not yet read, at most kMostReadAhead. Asks the system each time.
  // Closed: as Read, after all received bytes were read.
  Result<std::size_t> InputQueueLength();

  // Waits until `count` bytes are received, and returns at once when they already are.
  // kForever: no time-out. TimedOut: fewer came; more than kMostReadAhead never do.
  // Closed: the line is lost and fewer bytes than that are left.
  Status WaitForInput(std::size_t count, Milliseconds timeout);

  Status PurgeInput();   // discards received bytes, also those read ahead
  Status PurgeOutput();  // cannot recall what has already left for the far end
  Status DrainOutput();  // waits until all is sent; TimedOut after 1 s

  Status SetDtr(bool on);  // Unsupported where the line has no modem lines
  Status SetRts(bool on);

 private:
  struct Os;  // posix/serial_line.cpp, win32/serial_line.cpp
  explicit SerialLine(std::unique_ptr<Os> os);

  // ---- What each system implements ---------------------------------------------------------

  // Returns the bytes that the system holds; when it holds none, waits for the first one. 0: none
  // came within `atMost`, or a signal came.
  Result<std::size_t> Receive(std::span<std::byte> into, Milliseconds atMost);
  Status PrepareReads();           // called when the read time-outs are set
  Status PurgeDriver();            // discards what no read can reach yet
  void NapFor(std::size_t bytes);  // as long as they need on the line, 1 ms at most

  // ---- The same on every system (serial_line.cpp) ------------------------------------------

  Result<std::size_t> ReadAhead(Milliseconds atMost);
  std::size_t TakeAhead(std::span<std::byte> into);

  std::unique_ptr<Os> os_;
  ReadTimeouts timeouts_;
  std::unique_ptr<std::byte[]> ahead_ = std::make_unique<std::byte[]>(kMostReadAhead);
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace kinetrel

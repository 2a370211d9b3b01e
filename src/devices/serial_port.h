// One serial port: opens it by name or number, sets it up, reads and writes it.
//
// The base of every tracker device. A driver without a port opens the simulated port, whose name
// begins with '~': that always succeeds, and every transfer on it fails.
//
// Threads  one at a time; the engine's lock and the device's inUse() ensure that.
// Memory   nothing is allocated after OpenPort.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/byte_line.h"
#include "platform/serial_line.h"

namespace kinetrel {

// Progress or failure of the last OpenPort; the engine prints the number.
enum class PortStatus : int {
  NeverOpened = 0,
  OpenStarted = 1,
  HandleCreated = 2,
  Open = 3,
  Closed = 4,   // after having been Open
  Refused = 5,  // the system refused: in use, or not permitted
  NotCharacterDevice = 6,
  NoCapabilitiesBlock = 7,    // not reached: the block is part of the object
  CapabilitiesFailed = 8,     // lastError holds the system's code
  NotSerial = 9,              // a character device that takes no line settings
  NoConfigurationBlock = 10,  // not reached: the block is part of the object
  TimeoutsFailed = 11,
  EventMaskFailed = 12,
  NoSuchPort = 13,  // or no name given
  Simulated = 14,
};

// The number of the port that stands for USB.
inline constexpr int kUsbPortNumber = 257;

enum class TimeoutMode : int { ReturnAtOnce = 0, Timed = 1, Blocking = 2 };

class SerialPort {
 public:
  SerialPort() = default;
  SerialPort(const SerialPort&) = delete;
  SerialPort& operator=(const SerialPort&) = delete;
  virtual ~SerialPort();

  // ---- Port --------------------------------------------------------------------------------

  // Opens `name`: "COM1" to "COM16", a path such as "/dev/ttyUSB0", or a name that begins with '~'
  // for the simulated port. 8 data bits, no parity, one stop bit, no handshake; reads return at
  // once. Closes the port first if it is open.
  //
  // name     at most 27 characters; a path (a name with a '/') at most 255.
  // baud     bits a second; see SetLineSettings for the short form. The open succeeds even if the
  //          line refuses the rate.
  // Returns  1 opened, 0 failed: portStatus() names the step, openFailure() the cause.
  virtual int OpenPort(const char* name, int baud);

  // Opens COM<number>; a number outside 0..16 becomes 0.
  virtual int OpenPortNumber(int number, int baud);

  // Returns 1 when a port was closed, 0 when none was open.
  virtual int ClosePort();

  // `tap` sees the lines that are opened from now on. Null: none does.
  void SetTap(std::shared_ptr<LineTap> tap) { tap_ = std::move(tap); }

  // n of COMn, kUsbPortNumber on USB, 0 for the simulated port, -1 when closed
  virtual int GetPortNumber();
  virtual unsigned GetBaudRate();  // of the line settings

  // ---- Line --------------------------------------------------------------------------------

  // Sets the frame of a byte and the RTS line, and ends CTS flow control. False if the line refuses
  // or no port is open; the settings are kept for later.
  //
  // baud         short form: a multiple of 6 but not of 100 counts hundreds, so 1152 is 115200.
  // parity       0 none, 1 odd, 2 even, 3 mark, 4 space.
  // stopBits     0 one, 1 one and a half, 2 two.
  // rtsControl   0 off, 1 on, 2 handshake, 3 toggle.
  bool SetLineSettings(int baud, std::uint8_t byteSize, std::uint8_t parity, std::uint8_t stopBits,
                       unsigned rtsControl);

  // Sets when a read gives up: after totalConstant + perByte x count, or `interval` after the
  // previous byte, all in ms. totalConstant 0: a read returns at once with the bytes that wait; 1:
  // the stored values apply again. -2 repeats the argument before it. If all three stored values
  // are 0, a read blocks. Other negative values and a closed port: false, and nothing changes.
  bool SetReadTimeouts(int totalConstant, int perByte, int interval);

  // mode  -1 full hardware handshake, 0 none, else bits: 1 RTS on, 2 DTR on, 4 CTS output flow
  //       control, 8 DSR output flow control and sensitivity, 16 (with 1) RTS toggle.
  // Every mode raises DTR, because some devices take their power from it.
  // Returns false on a line without RTS/CTS, such as a pseudo-terminal.
  bool SetHandshake(int mode);

  // ---- Transfers ---------------------------------------------------------------------------

  unsigned Write(const void* data, unsigned count);  // bytes written within 1 s, 0 on failure
  bool Read(void* data, unsigned count);             // true only if exactly `count` came
  bool ReadSome(void* data, unsigned count, unsigned* got);
  unsigned InputQueueLength();  // bytes received and not yet read

  // Bytes that the last wait, read or queue length found and that no read has taken. Costs no
  // system call: right after WaitForRX it is the number of bytes that had come.
  unsigned BytesInHand() const;

  void PurgeInput();   // discards the received bytes
  void PurgeAll();     // and the bytes that wait to be sent
  void FlushOutput();  // waits until all bytes are sent, at most 1 s

  // Writes `text` up to `terminator` or its end. Then writes the terminator if `sendTerminator` is
  // true, even if the first write failed. Returns the number of characters of the text that were
  // written, negative if some were not.
  int WriteString(const char* text, char terminator, bool sendTerminator);

  // Reads bytes into `buffer` up to and including `terminator`, and stores a 0 after it if there is
  // room. Returns the number of bytes read. If a read fails, stores a 0 there and returns minus the
  // number. If the buffer fills first, its last byte becomes 0 and the result is -size.
  int ReadString(char* buffer, int size, char terminator);

  // Waits until `minBytes` wait to be read, and then returns true at once.
  //
  // timeoutMs  below 1: waits for one byte without a time-out; false at once without a handle.
  // A hang-up ends the wait at once. A port without a handle sleeps for the whole time.
  bool WaitForRX(int timeoutMs, int minBytes);

  static bool Pause(unsigned milliseconds);  // sleeps; true

  // ---- State -------------------------------------------------------------------------------

  bool HasHandle() const { return line_ != nullptr; }

  // The far end hung up or the device was unplugged since the port was opened. Only opening the
  // port again can bring the line back.
  bool LineLost() const { return lineLost_; }

  PortStatus portStatus() const { return portStatus_; }
  unsigned bytesWritten() const { return bytesWritten_; }  // since construction; wraps around
  unsigned bytesRead() const { return bytesRead_; }        // the same
  int lastError() const { return lastError_; }
  TimeoutMode timeoutMode() const { return timeoutMode_; }
  const LineSettings& lineSettings() const { return settings_; }
  const ReadTimeouts& readTimeouts() const { return timeouts_; }

  // Why the last OpenPort failed, in words that a user can act on; empty after a success.
  const std::string& openFailure() const { return openFailure_; }

 protected:
  // For a driver that has opened a USB line in place of a serial one. Line settings and handshakes
  // are then refused. Returns 1.
  //
  // baud  what GetBaudRate then says, for drivers that derive pauses from it.
  int OpenOnUsb(std::unique_ptr<ByteLine> line, int baud);

  // The same when it could not be opened. Returns 0.
  int RefuseUsb(const Status& cause, std::string why);

  bool IsOnUsb() const { return line_ != nullptr && serial_ == nullptr; }

  const std::shared_ptr<LineTap>& tap() const { return tap_; }  // null: none

  int portNumber_ = -1;

 private:
  bool TransferSucceeded(const Status& status);
  PortStatus OpenLine(const char* name, int baud);
  PortStatus SetUpLine(const std::string& name, int baud);
  PortStatus Refuse(PortStatus step, const std::string& name, const Status& cause);
  PortStatus Refuse(PortStatus step, std::string why);

  void TellTap(LineEvent event, std::string_view text) const;
  bool ApplySettings();

  std::shared_ptr<LineTap> tap_;  // null: none
  std::unique_ptr<ByteLine> line_;
  SerialLine* serial_ = nullptr;  // line_, unless that is on USB
  LineSettings settings_;         // starts with XON 0xF7, XOFF 0xF8, limits 2048 and 512
  ReadTimeouts timeouts_;
  SerialCapabilities capabilities_;
  unsigned bytesWritten_ = 0;
  unsigned bytesRead_ = 0;
  int lastError_ = 0;          // the last error code of the system
  int readTotalConstant_ = 0;  // ms
  int readPerByte_ = 0;        // ms
  int readInterval_ = 0;       // ms
  TimeoutMode timeoutMode_ = TimeoutMode::ReturnAtOnce;
  PortStatus portStatus_ = PortStatus::NeverOpened;
  bool lineLost_ = false;
  std::string openFailure_;
};

}  // namespace kinetrel

// One serial port: opened by name or number, set up, read and written.
//
// The base of every tracker device. A driver without a port opens the simulated one, a name that
// begins with '~': it opens nothing, always succeeds, and every transfer on it fails.
//
// Threads  one at a time; the engine's lock sees to it.
// Memory   nothing is allocated after OpenPort.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

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

enum class TimeoutMode : int { ReturnAtOnce = 0, Timed = 1, Blocking = 2 };

class SerialPort {
 public:
  SerialPort() = default;
  SerialPort(const SerialPort&) = delete;
  SerialPort& operator=(const SerialPort&) = delete;
  virtual ~SerialPort();

  // ---- Port --------------------------------------------------------------------------------

  // Opens `name`: "COM1" to "COM16", a path such as "/dev/ttyUSB0", or '~' and anything for the
  // simulated port. 8 data bits, no parity, one stop bit, no handshake; reads return at once. A
  // port that is open is closed first.
  //
  // name     at most 27 characters, a path (anything with a '/') 255.
  // baud     bits a second; see SetLineSettings for the short form. One that the line refuses does
  //          not fail the open.
  // Returns  1 opened, 0 failed: portStatus() names the step, openFailure() the cause.
  virtual int OpenPort(const char* name, int baud);

  // Opens COM<number>; a number outside 0..16 becomes 0.
  virtual int OpenPortNumber(int number, int baud);

  // Returns 1 when a port was closed, 0 when none was open.
  virtual int ClosePort();

  virtual int GetPortNumber();     // n of COMn, 0 for the simulated port, -1 when closed
  virtual unsigned GetBaudRate();  // of the line settings

  // ---- Line --------------------------------------------------------------------------------

  // Sets the frame of a byte and the RTS line, and ends CTS flow control. False when the line
  // refuses, or none is open: the settings are then only remembered.
  //
  // baud         a value that is no multiple of 100 but one of 6 counts hundreds: 1152 is 115200.
  // parity       0 none, 1 odd, 2 even, 3 mark, 4 space.
  // stopBits     0 one, 1 one and a half, 2 two.
  // rtsControl   0 off, 1 on, 2 handshake, 3 toggle.
  bool SetLineSettings(int baud, std::uint8_t byteSize, std::uint8_t parity, std::uint8_t stopBits,
                       unsigned rtsControl);

  // When a read gives up: after totalConstant + perByte x count, or `interval` after the byte
  // before, all in ms. totalConstant 0: reads return at once with what is there; 1: the stored
  // values again. -2 stands for the value just before it. All three 0 (stored): reads block.
  // False, and nothing changed, for other negative values and without an open port.
  bool SetReadTimeouts(int totalConstant, int perByte, int interval);

  // mode  -1 full hardware handshake, 0 none, else bits: 1 RTS on, 2 DTR on, 4 CTS output flow
  //       control, 8 DSR output flow control and sensitivity, 16 (with 1) RTS toggle.
  // In every mode DTR is raised, as a device may take its power from it.
  // Returns false where the line has no RTS/CTS, as a pseudo-terminal has not.
  bool SetHandshake(int mode);

  // ---- Transfers ---------------------------------------------------------------------------

  unsigned Write(const void* data, unsigned count);  // bytes taken within 1 s, 0 on failure
  bool Read(void* data, unsigned count);             // true only when exactly `count` came
  bool ReadSome(void* data, unsigned count, unsigned* got);
  unsigned InputQueueLength();  // bytes received and not yet read
  void PurgeInput();            // discards what was received
  void PurgeAll();              // and what waits to be sent
  void FlushOutput();           // waits until all is sent, 1 s at the most

  // Writes `text` up to `terminator` or its end, then the terminator itself if asked, also after a
  // write that failed. Returns the characters of the text that were written, or minus their number
  // when they were not all.
  int WriteString(const char* text, char terminator, bool sendTerminator);

  // Reads bytes into `buffer` up to and including `terminator`, and stores a 0 after it where
  // there is room. Returns the bytes read; minus their number when a read failed (a 0 is stored
  // there); -size when the buffer filled first (its last byte is then 0).
  int ReadString(char* buffer, int size, char terminator);

  // True once `minBytes` wait to be read. Wakes when they arrive, not at the end of a step.
  //
  // timeoutMs  below 1: waits for any byte, without a time-out; false at once without a handle.
  // A line that hung up ends the wait at once; a port without a handle only waits out the time.
  bool WaitForRX(int timeoutMs, int minBytes);

  static bool Pause(unsigned milliseconds);  // sleeps; true

  // ---- State -------------------------------------------------------------------------------

  bool HasHandle() const { return line_.has_value(); }

  // The far end hung up or the device was unplugged since the port was opened: only opening it
  // anew can bring it back.
  bool LineLost() const { return lineLost_; }

  PortStatus portStatus() const { return portStatus_; }
  int lastError() const { return lastError_; }
  TimeoutMode timeoutMode() const { return timeoutMode_; }
  const LineSettings& lineSettings() const { return settings_; }
  const ReadTimeouts& readTimeouts() const { return timeouts_; }

  // Why the last OpenPort failed, in words a user can act on; empty after a success.
  const std::string& openFailure() const { return openFailure_; }

 protected:
  int portNumber_ = -1;

 private:
  bool Done(const Status& status);
  PortStatus OpenLine(const char* name, int baud);
  PortStatus SetUpLine(const std::string& name, int baud);
  PortStatus Refuse(PortStatus step, const std::string& name, const Status& cause);
  PortStatus Refuse(PortStatus step, std::string why);

  std::optional<SerialLine> line_;
  LineSettings settings_;  // starts with XON 0xF7, XOFF 0xF8, limits 2048 and 512
  ReadTimeouts timeouts_;
  SerialCapabilities capabilities_;
  int lastError_ = 0;          // the system's own code, last seen
  int readTotalConstant_ = 0;  // ms
  int readPerByte_ = 0;        // ms
  int readInterval_ = 0;       // ms
  TimeoutMode timeoutMode_ = TimeoutMode::ReturnAtOnce;
  PortStatus portStatus_ = PortStatus::NeverOpened;
  bool lineLost_ = false;
  std::string openFailure_;
};

}  // namespace kinetrel

#include "devices/serial_port.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <span>
#include <utility>

#include "platform/clock.h"

namespace kinetrel {
namespace {

constexpr int kLastComPort = 16;
constexpr int kSameAsBefore = -2;  // of a read time-out: the value just before it
constexpr int kStoredValues = 1;   // of the first read time-out: those set earlier

// The longest COM name is fixed, so that a longer text fails in the same way on every system. Paths
// depend on the machine and have a bound of their own.
constexpr std::size_t kLongestName = 27;
constexpr std::size_t kLongestPath = 255;

std::size_t LongestAllowed(const char* name) {
  return std::strchr(name, '/') != nullptr ? kLongestPath : kLongestName;
}

int ComPortOrZero(long number) {
  return number < 0 || number > kLastComPort ? 0 : static_cast<int>(number);
}

PortStatus StepOfOpenFailure(Error error) {
  if (error == Error::NotFound) return PortStatus::NoSuchPort;
  if (error == Error::Invalid) return PortStatus::NotCharacterDevice;
  return PortStatus::Refused;
}

// The short form of a baud rate counts hundreds. Every full rate that trackers use and that is a
// multiple of 6 is a multiple of 100 too.
long long FullBaud(int baud) {
  const bool hundreds = baud % 100 != 0 && baud % 6 == 0;
  return hundreds ? 100LL * baud : baud;
}

bool NegativeTimeout(int value) { return value < 0 && value != kSameAsBefore; }

std::uint32_t AsTimeout(int value) { return static_cast<std::uint32_t>(value); }

std::span<std::byte> AsBytes(void* data, unsigned count) {
  return {static_cast<std::byte*>(data), count};
}

std::span<const std::byte> AsBytes(const void* data, unsigned count) {
  return {static_cast<const std::byte*>(data), count};
}

// The number of characters before `terminator`, or in the whole text without one.
unsigned LengthUpTo(const char* text, char terminator) {
  const char* end = text;
  while (*end != terminator && *end != '\0') ++end;
  return static_cast<unsigned>(end - text);
}

// The bits of a handshake mode.
constexpr unsigned kRtsOn = 1;
constexpr unsigned kDtrOn = 2;
constexpr unsigned kCtsFlow = 4;
constexpr unsigned kDsrFlow = 8;
constexpr unsigned kRtsToggle = 16;

void PutFullHandshake(LineSettings& settings) {
  settings.ctsOutputFlow = true;
  settings.dsrOutputFlow = true;
  settings.dsrSensitivity = true;
  settings.dtr = ModemControl::Handshake;
  settings.rts = ModemControl::Handshake;
}

void PutHandshakeBits(LineSettings& settings, unsigned bits) {
  const ModemControl rtsOn = (bits & kRtsToggle) != 0 ? ModemControl::Toggle : ModemControl::On;
  settings.ctsOutputFlow = (bits & kCtsFlow) != 0;
  settings.dsrOutputFlow = (bits & kDsrFlow) != 0;
  settings.dsrSensitivity = settings.dsrOutputFlow;
  settings.dtr = (bits & kDtrOn) != 0 ? ModemControl::On : ModemControl::Off;
  settings.rts = (bits & kRtsOn) != 0 ? rtsOn : ModemControl::Off;
}

void PutNoFlowControl(LineSettings& settings) {
  PutHandshakeBits(settings, 0);
  settings.xonXoffInput = false;
  settings.xonXoffOutput = false;
  settings.continueAfterXoff = false;
}

}  // namespace

SerialPort::~SerialPort() { SerialPort::ClosePort(); }

// ---- Port ----------------------------------------------------------------------------------

int SerialPort::OpenPort(const char* name, int baud) {
  if (HasHandle()) ClosePort();
  openFailure_.clear();
  lineLost_ = false;
  if (name != nullptr && *name == '~') {
    portNumber_ = 0;
    portStatus_ = PortStatus::Simulated;
    return 1;
  }
  portStatus_ = PortStatus::OpenStarted;
  portStatus_ = OpenLine(name, baud);
  if (portStatus_ == PortStatus::Open) return 1;
  ClosePort();
  portNumber_ = -1;
  return 0;
}

PortStatus SerialPort::OpenLine(const char* name, int baud) {
  if (name == nullptr) return Refuse(PortStatus::NoSuchPort, "no port name given");
  if (::strnlen(name, kLongestPath + 1) > LongestAllowed(name)) {
    return Refuse(PortStatus::NoSuchPort, "the port name is too long");
  }
  if (std::strncmp(name, "COM", 3) == 0 && name[3] != '\0') {
    portNumber_ = ComPortOrZero(std::strtol(name + 3, nullptr, 10));
  }
  Result<SerialLine> opened = SerialLine::Open(name);
  if (!opened.Ok()) {
    return Refuse(StepOfOpenFailure(opened.status().error), name, opened.status());
  }
  auto line = std::make_unique<SerialLine>(std::move(*opened));
  serial_ = line.get();
  line_ = std::move(line);
  line_->SetTap(tap_);
  TellTap(LineEvent::Opened, name);
  portStatus_ = PortStatus::HandleCreated;
  return SetUpLine(name, baud);
}

PortStatus SerialPort::SetUpLine(const std::string& name, int baud) {
  const Result<SerialCapabilities> capabilities = serial_->Capabilities();
  if (!capabilities.Ok()) {
    return Refuse(PortStatus::CapabilitiesFailed, name, capabilities.status());
  }
  if (!capabilities->serialLine) {
    return Refuse(PortStatus::NotSerial, name, {Error::Invalid, 0, "open the serial line"});
  }
  capabilities_ = *capabilities;
  if (const Result<LineSettings> found = serial_->Settings(); found.Ok()) settings_ = *found;
  SetLineSettings(baud, 8, 0, 0, 0);
  if (!SetReadTimeouts(0, kSameAsBefore, kSameAsBefore)) {
    return Refuse(PortStatus::TimeoutsFailed, name, {Error::Failed, 0, "set the read time-outs"});
  }
  if (const Status watched = serial_->WatchInput(); !watched.Ok()) {
    return Refuse(PortStatus::EventMaskFailed, name, watched);
  }
  return PortStatus::Open;
}

PortStatus SerialPort::Refuse(PortStatus step, const std::string& name, const Status& cause) {
  lastError_ = cause.osCode;
  return Refuse(step, SerialLine::ExplainOpenFailure(name, cause));
}

PortStatus SerialPort::Refuse(PortStatus step, std::string why) {
  openFailure_ = std::move(why);
  return step;
}

int SerialPort::OpenPortNumber(int number, int baud) {
  const int taken = ComPortOrZero(number);
  portNumber_ = taken;
  const int opened = OpenPort(("COM" + std::to_string(taken)).c_str(), baud);
  if (opened == 0 && taken != number) {
    openFailure_ = "a port number outside 1 to 16 means " + openFailure_;
  }
  return opened;
}

int SerialPort::OpenOnUsb(std::unique_ptr<ByteLine> line, int baud) {
  if (HasHandle()) ClosePort();
  openFailure_.clear();
  lineLost_ = false;
  line_ = std::move(line);
  line_->SetTap(tap_);
  TellTap(LineEvent::Opened, "usb");
  portNumber_ = kUsbPortNumber;
  SetLineSettings(baud, 8, 0, 0, 0);  // stored only
  SetReadTimeouts(0, kSameAsBefore, kSameAsBefore);
  portStatus_ = PortStatus::Open;
  return 1;
}

int SerialPort::RefuseUsb(const Status& cause, std::string why) {
  if (HasHandle()) ClosePort();
  lastError_ = cause.osCode;
  portNumber_ = -1;
  portStatus_ = Refuse(StepOfOpenFailure(cause.error), std::move(why));
  return 0;
}

int SerialPort::ClosePort() {
  if (!line_) return 0;
  serial_ = nullptr;
  line_.reset();
  TellTap(LineEvent::Closed, {});
  capabilities_ = {};
  portNumber_ = -1;
  if (portStatus_ == PortStatus::Open) portStatus_ = PortStatus::Closed;
  return 1;
}

int SerialPort::GetPortNumber() { return portNumber_; }

unsigned SerialPort::GetBaudRate() { return settings_.baud; }

// ---- Line ----------------------------------------------------------------------------------

bool SerialPort::SetLineSettings(int baud, std::uint8_t byteSize, std::uint8_t parity,
                                 std::uint8_t stopBits, unsigned rtsControl) {
  const long long rate = FullBaud(baud);
  if (rate < 1 || rate > std::numeric_limits<unsigned>::max()) return false;
  settings_.baud = static_cast<unsigned>(rate);
  settings_.byteSize = byteSize;
  settings_.parity = static_cast<Parity>(parity);
  settings_.stopBits = static_cast<StopBits>(stopBits);
  settings_.rts = static_cast<ModemControl>(rtsControl & 3);
  settings_.ctsOutputFlow = false;
  return serial_ != nullptr && ApplySettings();
}

bool SerialPort::SetReadTimeouts(int totalConstant, int perByte, int interval) {
  if (!line_) return false;
  if (totalConstant != 0 && totalConstant != kStoredValues) {
    if (NegativeTimeout(totalConstant) || NegativeTimeout(perByte) || NegativeTimeout(interval)) {
      return false;
    }
    readTotalConstant_ = totalConstant == kSameAsBefore ? 0 : totalConstant;
    readPerByte_ = perByte == kSameAsBefore ? readTotalConstant_ : perByte;
    readInterval_ = interval == kSameAsBefore ? readPerByte_ : interval;
  }
  if (totalConstant == 0) {
    timeouts_ = {ReadTimeouts::kReturnAtOnce, 0, 0};
    timeoutMode_ = TimeoutMode::ReturnAtOnce;
  } else {
    timeouts_ = {AsTimeout(readInterval_), AsTimeout(readPerByte_), AsTimeout(readTotalConstant_)};
    const bool none = readTotalConstant_ == 0 && readPerByte_ == 0 && readInterval_ == 0;
    timeoutMode_ = none ? TimeoutMode::Blocking : TimeoutMode::Timed;
  }
  return line_->SetReadTimeouts(timeouts_).Ok();
}

bool SerialPort::SetHandshake(int mode) {
  if (serial_ == nullptr || !capabilities_.rtsCts) return false;
  if (mode == -1) {
    PutFullHandshake(settings_);
  } else if (mode == 0) {
    PutNoFlowControl(settings_);
  } else {
    PutHandshakeBits(settings_, static_cast<unsigned>(mode));
  }
  (void)serial_->SetRts(false);
  (void)serial_->SetDtr(true);
  return ApplySettings();
}

bool SerialPort::ApplySettings() {
  const bool applied = serial_->Apply(settings_).Ok();
  if (!tap_) return applied;
  constexpr std::string_view kParities = "NOEMS";
  const auto parity = static_cast<std::size_t>(settings_.parity);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%u %u%c%s RTS %d DTR %d", settings_.baud,
                unsigned{settings_.byteSize}, parity < kParities.size() ? kParities[parity] : '?',
                settings_.stopBits == StopBits::One   ? "1"
                : settings_.stopBits == StopBits::Two ? "2"
                                                      : "1.5",
                static_cast<int>(settings_.rts), static_cast<int>(settings_.dtr));
  TellTap(LineEvent::Settings, text.data());
  return applied;
}

void SerialPort::TellTap(LineEvent event, std::string_view text) const {
  if (tap_) tap_->OnLine(event, std::as_bytes(std::span(text)), ClockTicks());
}

// ---- Transfers -----------------------------------------------------------------------------

// A failed transfer leaves its error code and may show that the line is lost.
bool SerialPort::TransferSucceeded(const Status& status) {
  if (status.Ok()) return true;
  if (status.osCode != 0) lastError_ = status.osCode;
  lineLost_ = lineLost_ || status.error == Error::Closed;
  return false;
}

unsigned SerialPort::Write(const void* data, unsigned count) {
  if (!line_) return 0;
  const Result<std::size_t> written = line_->Write(AsBytes(data, count));
  if (!TransferSucceeded(written.status())) return 0;
  bytesWritten_ += static_cast<unsigned>(*written);
  return static_cast<unsigned>(*written);
}

bool SerialPort::Read(void* data, unsigned count) {
  unsigned got = 0;
  return ReadSome(data, count, &got) && got == count;
}

bool SerialPort::ReadSome(void* data, unsigned count, unsigned* got) {
  *got = 0;
  if (!line_) return false;
  const Result<std::size_t> read = line_->Read(AsBytes(data, count));
  if (!TransferSucceeded(read.status())) return false;
  *got = static_cast<unsigned>(*read);
  bytesRead_ += *got;
  return true;
}

unsigned SerialPort::InputQueueLength() {
  if (!line_) return 0;
  const Result<std::size_t> length = line_->InputQueueLength();
  return TransferSucceeded(length.status()) ? static_cast<unsigned>(*length) : 0;
}

unsigned SerialPort::BytesInHand() const {
  return line_ ? static_cast<unsigned>(line_->HeldAhead()) : 0;
}

// The result is ignored: a line that is gone holds no bytes.
void SerialPort::PurgeInput() {
  if (line_) (void)line_->PurgeInput();
}

void SerialPort::PurgeAll() {
  PurgeInput();
  if (line_) (void)line_->PurgeOutput();
}

void SerialPort::FlushOutput() {
  if (line_) (void)line_->DrainOutput();
}

// One write for the whole text: a USB adapter would send each single byte as a packet.
int SerialPort::WriteString(const char* text, char terminator, bool sendTerminator) {
  if (text == nullptr) return 0;
  const unsigned length = LengthUpTo(text, terminator);
  const unsigned written = Write(text, length);
  if (sendTerminator) Write(&terminator, 1);
  const int count = static_cast<int>(written);
  return written == length ? count : -count;
}

int SerialPort::ReadString(char* buffer, int size, char terminator) {
  if (buffer == nullptr || size < 1) return 0;
  for (int count = 0; count < size; ++count) {
    char* const place = buffer + count;
    if (!Read(place, 1)) {
      *place = '\0';
      return -count;
    }
    if (*place != terminator) continue;
    if (count + 1 < size) place[1] = '\0';
    return count + 1;
  }
  buffer[size - 1] = '\0';
  return -size;
}

bool SerialPort::WaitForRX(int timeoutMs, int minBytes) {
  if (timeoutMs < 1) return line_ && TransferSucceeded(line_->WaitForInput(1, kForever));
  if (minBytes < 1) return true;
  const Milliseconds timeout(timeoutMs);
  if (line_)
    return TransferSucceeded(line_->WaitForInput(static_cast<std::size_t>(minBytes), timeout));
  SleepFor(timeout);
  return false;
}

bool SerialPort::Pause(unsigned milliseconds) {
  SleepFor(Milliseconds(milliseconds));
  return true;
}

}  // namespace kinetrel

#include "platform/posix/terminal_settings.h"

#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <cstddef>

#include "platform/posix/os.h"

namespace kinetrel {
namespace {

// Rates with a code of their own. The kernel takes them as numbers too, but other programs on the
// same line (stty, an older terminal program) know a rate by its code only.
struct RateCode {
  unsigned baud;
  tcflag_t code;
};
constexpr RateCode kRateCodes[] = {
    {300, B300},       {600, B600},       {1200, B1200},     {2400, B2400},   {4800, B4800},
    {9600, B9600},     {19200, B19200},   {38400, B38400},   {57600, B57600}, {115200, B115200},
    {230400, B230400}, {460800, B460800}, {921600, B921600},
};

constexpr std::array<tcflag_t, 4> kSizeBits = {CS5, CS6, CS7, CS8};  // from 5 bits on
constexpr std::array<tcflag_t, 5> kParityBits = {0, PARENB | PARODD, PARENB,
                                                 PARENB | PARODD | CMSPAR, PARENB | CMSPAR};
constexpr tcflag_t kParityMask = PARENB | PARODD | CMSPAR;

tcflag_t RateBits(unsigned baud) {
  for (const RateCode& rate : kRateCodes) {
    if (rate.baud == baud) return rate.code;
  }
  return BOTHER;
}

// One and a half stop bits are what the hardware makes of two when a byte has 5 bits, and the
// only length it then has.
bool IsPossible(const LineSettings& settings) {
  if (settings.baud == 0 || settings.byteSize < 5 || settings.byteSize > 8) return false;
  if (settings.parity > Parity::Space || settings.stopBits > StopBits::Two) return false;
  const StopBits impossible = settings.byteSize == 5 ? StopBits::Two : StopBits::OneAndHalf;
  return settings.stopBits != impossible;
}

StopBits StopBitsOf(tcflag_t flags) {
  if ((flags & CSTOPB) == 0) return StopBits::One;
  return (flags & CSIZE) == CS5 ? StopBits::OneAndHalf : StopBits::Two;
}

Parity ParityOf(tcflag_t flags) {
  if ((flags & PARENB) == 0) return Parity::None;
  for (std::size_t i = 1; i < kParityBits.size(); ++i) {
    if ((flags & kParityMask) == kParityBits[i]) return static_cast<Parity>(i);
  }
  return Parity::None;
}

void SetFlag(tcflag_t& flags, tcflag_t flag, bool on) { flags = on ? flags | flag : flags & ~flag; }

}  // namespace

Status ReadTerminal(int fd, termios2& terminal) {
  if (::ioctl(fd, TCGETS2, &terminal) == 0) return {};
  return StatusFromErrno(errno, "read the line settings");
}

Status WriteTerminal(int fd, const termios2& terminal) {
  if (::ioctl(fd, TCSETS2, &terminal) == 0) return {};
  return StatusFromErrno(errno, "set the line settings");
}

void MakeRaw(termios2& terminal) {
  terminal.c_iflag = IGNBRK;
  terminal.c_oflag = 0;
  terminal.c_lflag = 0;
  terminal.c_cflag |= CREAD | CLOCAL;
  terminal.c_cc[VMIN] = 1;  // a read of 0 bytes is then a hang-up and nothing else
  terminal.c_cc[VTIME] = 0;
}

// The kernel has one switch for both directions of the RTS/CTS handshake, none for a DTR/DSR
// handshake or DSR sensitivity, keeps its own XON/XOFF limits, and always sends on after an XOFF.
Status PutSettings(const LineSettings& settings, termios2& terminal) {
  if (!IsPossible(settings)) return {Error::Invalid, 0, "set the line settings"};
  const bool rtsCts = settings.ctsOutputFlow || settings.rts == ModemControl::Handshake;
  tcflag_t& flags = terminal.c_cflag;
  flags &= ~(CBAUD | CIBAUD | CSIZE | kParityMask);  // no input rate: the same as the output rate
  flags |= RateBits(settings.baud);
  flags |= kSizeBits[settings.byteSize - 5U];
  flags |= kParityBits[static_cast<std::size_t>(settings.parity)];
  SetFlag(flags, CSTOPB, settings.stopBits != StopBits::One);
  SetFlag(flags, CRTSCTS, rtsCts);
  SetFlag(terminal.c_iflag, IXON, settings.xonXoffOutput);
  SetFlag(terminal.c_iflag, IXOFF, settings.xonXoffInput);
  terminal.c_ispeed = terminal.c_ospeed = settings.baud;
  terminal.c_cc[VSTART] = settings.xonChar;
  terminal.c_cc[VSTOP] = settings.xoffChar;
  return {};
}

LineSettings GetSettings(const termios2& terminal) {
  const tcflag_t flags = terminal.c_cflag;
  LineSettings settings;
  settings.baud = terminal.c_ospeed;
  for (std::size_t i = 0; i < kSizeBits.size(); ++i) {
    if ((flags & CSIZE) == kSizeBits[i]) settings.byteSize = static_cast<std::uint8_t>(5 + i);
  }
  settings.parity = ParityOf(flags);
  settings.stopBits = StopBitsOf(flags);
  settings.ctsOutputFlow = (flags & CRTSCTS) != 0;
  settings.rts = settings.ctsOutputFlow ? ModemControl::Handshake : ModemControl::Off;
  settings.xonXoffOutput = (terminal.c_iflag & IXON) != 0;
  settings.xonXoffInput = (terminal.c_iflag & IXOFF) != 0;
  settings.xonChar = terminal.c_cc[VSTART];
  settings.xoffChar = terminal.c_cc[VSTOP];
  return settings;
}

}  // namespace kinetrel

#include "platform/posix/serial_calls.h"

#include <asm/termbits.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "platform/posix/os.h"
#include "platform/serial_line.h"

namespace kinetrel {
namespace {

Transfer FailedTransfer(int code) {
  if (code == EAGAIN) return {};
  return {code == EIO ? Ended::HungUp : Ended::Failed, 0, code};
}

// Pseudo-terminals and some adapters have no modem lines. Kernels report that in different ways.
Status ModemLineStatus(int code, const char* what) {
  if (code == EINVAL) return {Error::Unsupported, code, what};
  return StatusFromErrno(code, what);
}

int BitOf(ModemLine line) { return line == ModemLine::Dtr ? TIOCM_DTR : TIOCM_RTS; }

}  // namespace

// ---- Names ---------------------------------------------------------------------------------

bool IsPseudoTerminal(const struct stat& file) {
  constexpr unsigned kFirstMajor = 136;
  constexpr unsigned kLastMajor = 143;
  return major(file.st_rdev) >= kFirstMajor && major(file.st_rdev) <= kLastMajor;
}

std::string SerialDevicePath(const std::string& name) {
  const std::optional<unsigned> number = ComNumber(name);
  if (!number) return name;
  const std::string variable = "KINETREL_COM" + std::to_string(*number);
  const char* const chosen = std::getenv(variable.c_str());
  if (chosen != nullptr && *chosen != '\0') return chosen;
  return *number == 0 ? std::string() : "/dev/ttyS" + std::to_string(*number - 1);
}

std::string GroupThatMayUse(const std::string& path) {
  struct stat device {};
  if (::stat(path.c_str(), &device) != 0) return {};
  constexpr mode_t kBoth = S_IRGRP | S_IWGRP;
  if (device.st_gid == 0 || (device.st_mode & kBoth) != kBoth) return {};
  std::vector<char> text(4096);
  group entry{};
  group* found = nullptr;
  if (::getgrgid_r(device.st_gid, &entry, text.data(), text.size(), &found) != 0 || !found) {
    return std::to_string(device.st_gid);
  }
  return found->gr_name;
}

// ---- Opening -------------------------------------------------------------------------------

Status CheckIsCharacterDevice(const std::string& path) {
  constexpr const char* kWhat = "open the serial line";
  struct stat found {};
  if (::stat(path.c_str(), &found) == 0) {
    return S_ISCHR(found.st_mode) ? Status{} : Status{Error::Invalid, 0, kWhat};
  }
  const Status failure = StatusFromErrno(errno, kWhat);
  return {failure.error == Error::Denied ? Error::Denied : Error::NotFound, failure.osCode, kWhat};
}

Result<int> OpenSerialDevice(const std::string& path) {
  for (;;) {
    const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) return fd;
    if (errno == EIO) return Status{Error::NotFound, errno, "open the serial line"};
    if (errno != EINTR) return StatusFromErrno(errno, "open the serial line");
  }
}

// The lock works between programs that ask for it, of any account. The exclusive mode keeps out all
// other programs except those of root. The near end of a pseudo-terminal keeps that mode as long as
// the far end lives: a killed program would lock every other account out, so the file lock alone
// guards it.
Status ClaimLine(int fd) {
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) return StatusFromErrno(errno, "lock the serial line");
  struct stat file {};
  if (::fstat(fd, &file) != 0 || !IsPseudoTerminal(file)) ::ioctl(fd, TIOCEXCL);
  return {};
}

void ReleaseExclusiveMode(int fd) { ::ioctl(fd, TIOCNXCL); }

std::optional<int> AskForLowLatency(int fd) {
  serial_struct driver{};
  if (::ioctl(fd, TIOCGSERIAL, &driver) != 0) return std::nullopt;
  const int found = driver.flags;
  driver.flags |= ASYNC_LOW_LATENCY;
  if (::ioctl(fd, TIOCSSERIAL, &driver) != 0) return std::nullopt;
  return found;
}

void RestoreLatency(int fd, int foundFlags) {
  serial_struct driver{};
  if ((foundFlags & ASYNC_LOW_LATENCY) != 0 || ::ioctl(fd, TIOCGSERIAL, &driver) != 0) return;
  driver.flags &= ~ASYNC_LOW_LATENCY;
  ::ioctl(fd, TIOCSSERIAL, &driver);
}

// ---- Transfers -----------------------------------------------------------------------------

// On a raw line a read of 0 bytes never means "none yet". It means that the far end hung up.
Transfer ReadOnce(int fd, std::span<std::byte> into) {
  for (;;) {
    const ssize_t got = ::read(fd, into.data(), into.size());
    if (got > 0) return {Ended::Bytes, static_cast<std::size_t>(got)};
    if (got == 0) return {Ended::HungUp};
    if (errno != EINTR) return FailedTransfer(errno);
  }
}

Transfer WriteOnce(int fd, std::span<const std::byte> from) {
  for (;;) {
    const ssize_t taken = ::write(fd, from.data(), from.size());
    if (taken > 0) return {Ended::Bytes, static_cast<std::size_t>(taken)};
    if (taken == 0) return {};
    if (errno != EINTR) return FailedTransfer(errno);
  }
}

Ready PollInput(int fd, Milliseconds atMost) {
  pollfd line{fd, POLLIN, 0};
  const int limit = static_cast<int>(std::min<Milliseconds::rep>(atMost.count(), INT_MAX));
  if (::poll(&line, 1, limit) <= 0) return Ready::Nothing;
  return (line.revents & ~POLLIN) != 0 ? Ready::HungUp : Ready::Input;
}

// ---- Queues --------------------------------------------------------------------------------

Result<std::size_t> CountUnsent(int fd) {
  int count = 0;
  if (::ioctl(fd, TIOCOUTQ, &count) != 0) return StatusFromErrno(errno, "count unsent bytes");
  return static_cast<std::size_t>(count);
}

// Hardware that cannot answer counts as empty.
bool SenderIsEmpty(int fd) {
  unsigned state = 0;
  return ::ioctl(fd, TIOCSERGETLSR, &state) != 0 || (state & TIOCSER_TEMT) != 0;
}

Status DiscardOutput(int fd) {
  if (::ioctl(fd, TCFLSH, TCOFLUSH) == 0) return {};
  return StatusFromErrno(errno, "discard unsent bytes");
}

Result<unsigned> CountFramingErrors(int fd) {
  serial_icounter_struct counted{};
  constexpr const char* kWhat = "count framing errors";
  if (::ioctl(fd, TIOCGICOUNT, &counted) != 0) return Status{Error::Unsupported, errno, kWhat};
  return static_cast<unsigned>(counted.frame) + static_cast<unsigned>(counted.brk);
}

// ---- Modem lines ---------------------------------------------------------------------------

Result<ModemLines> ReadModemLines(int fd) {
  int lines = 0;
  if (::ioctl(fd, TIOCMGET, &lines) != 0) return ModemLineStatus(errno, "read the modem lines");
  return ModemLines{(lines & TIOCM_DTR) != 0, (lines & TIOCM_RTS) != 0};
}

Status SetModemLine(int fd, ModemLine line, bool on) {
  const int bit = BitOf(line);
  if (::ioctl(fd, on ? TIOCMBIS : TIOCMBIC, &bit) == 0) return {};
  return ModemLineStatus(errno, "set a modem line");
}

// ---- Naps ----------------------------------------------------------------------------------

void Nap(Microseconds time) {
  const timespec span{0, time.count() * 1000};
  ::nanosleep(&span, nullptr);
}

void NapForBytes(std::size_t bytes, unsigned baud) {
  const Microseconds time(10'000'000LL * static_cast<long long>(bytes) / std::max(baud, 1U));
  Nap(std::clamp(time, kShortestNap, kLongestNap));
}

}  // namespace kinetrel

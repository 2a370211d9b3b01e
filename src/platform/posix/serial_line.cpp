#include "platform/serial_line.h"

#include <unistd.h>

#include <algorithm>
#include <optional>

#include "platform/posix/os.h"
#include "platform/posix/serial_calls.h"
#include "platform/posix/terminal_settings.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kWritePatience{1000};
constexpr Milliseconds kDrainPatience{1000};

// A transfer that moved bytes is a success. The next call reports why no more passed.
Result<std::size_t> Outcome(const Transfer& last, std::size_t before, const char* what) {
  const std::size_t count = before + last.count;
  if (count > 0 || last.how == Ended::Nothing) return count;
  if (last.how == Ended::HungUp) return Status{Error::Closed, last.code, what};
  return StatusFromErrno(last.code, what);
}

}  // namespace

// ---- The line ------------------------------------------------------------------------------

struct SerialLine::Os {
  explicit Os(int opened) : fd(opened) {}
  Os(const Os&) = delete;
  Os& operator=(const Os&) = delete;
  ~Os();

  Status TakeOver();
  Status Drain() const;

  int fd;
  std::optional<termios2>
      found;  // the settings to restore; none for a device that is not a terminal
  std::optional<int> foundDriverFlags;
  unsigned baud = 0;
};

// Drops the bytes that a stuck line does not send: closing would wait 30 s for them.
SerialLine::Os::~Os() {
  if (found) {
    if (!Drain().Ok()) (void)DiscardOutput(fd);
    if (foundDriverFlags) RestoreLatency(fd, *foundDriverFlags);
    (void)WriteTerminal(fd, *found);
    ReleaseExclusiveMode(fd);
  }
  ::close(fd);
}

Status SerialLine::Os::TakeOver() {
  termios2 terminal{};
  if (!ReadTerminal(fd, terminal).Ok()) return {};  // not a terminal: Capabilities reports it
  if (const Status claimed = ClaimLine(fd); !claimed.Ok()) return claimed;
  // Root can open a name without hardware behind it. Only this call reveals it.
  const Result<ModemLines> lines = ReadModemLines(fd);
  if (lines.status().error == Error::Closed) {
    return {Error::NotFound, lines.status().osCode, "open the serial line"};
  }
  found = terminal;
  baud = terminal.c_ospeed;
  MakeRaw(terminal);
  if (const Status raw = WriteTerminal(fd, terminal); !raw.Ok()) return raw;
  foundDriverFlags = AskForLowLatency(fd);
  return {};
}

Status SerialLine::Os::Drain() const {
  for (const Deadline deadline(kDrainPatience);;) {
    const Result<std::size_t> unsent = CountUnsent(fd);
    if (!unsent.Ok()) return unsent.status();
    if (*unsent == 0 && SenderIsEmpty(fd)) return {};
    if (deadline.Passed()) return {Error::TimedOut, 0, "send what was written"};
    NapForBytes(*unsent, baud);
  }
}

SerialLine::SerialLine(std::unique_ptr<Os> os) : os_(std::move(os)) {}
SerialLine::SerialLine(SerialLine&&) noexcept = default;
SerialLine& SerialLine::operator=(SerialLine&&) noexcept = default;
SerialLine::~SerialLine() = default;

Result<SerialLine> SerialLine::Open(const std::string& name) {
  const std::string path = SerialDevicePath(name);
  if (const Status kind = CheckIsCharacterDevice(path); !kind.Ok()) return kind;
  const Result<int> fd = OpenSerialDevice(path);
  if (!fd.Ok()) return fd.status();
  auto os = std::make_unique<Os>(*fd);
  if (const Status taken = os->TakeOver(); !taken.Ok()) return taken;
  return SerialLine(std::move(os));
}

std::string SerialLine::ExplainOpenFailure(const std::string& name, const Status& failure) {
  const std::string path = SerialDevicePath(name);
  const bool translated = path != name && !path.empty();
  const std::string subject = translated ? name + " (" + path + "): " : name + ": ";
  if (failure.error == Error::NotFound) {
    const std::optional<unsigned> number = ComNumber(name);
    if (!number) return subject + "no such device";
    return subject + "no such device; KINETREL_COM" + std::to_string(*number) +
           " can name another one";
  }
  if (failure.error == Error::Busy) return subject + "in use by another program";
  if (failure.error == Error::Invalid) return subject + "not a serial device";
  if (failure.error != Error::Denied) return subject + Describe(failure);
  const std::string group = GroupThatMayUse(path);
  if (group.empty()) return subject + "permission denied: its owner lets no other account use it";
  return subject + "permission denied: add this account to group " + group + " and log in again";
}

Result<SerialCapabilities> SerialLine::Capabilities() const {
  termios2 terminal{};
  const Status read = ReadTerminal(os_->fd, terminal);
  if (read.error == Error::Closed) return read;
  if (!read.Ok()) return SerialCapabilities{};  // other devices refuse in many ways
  return SerialCapabilities{true, ReadModemLines(os_->fd).Ok()};
}

Result<LineSettings> SerialLine::Settings() const {
  termios2 terminal{};
  if (const Status read = ReadTerminal(os_->fd, terminal); !read.Ok()) return read;
  LineSettings settings = GetSettings(terminal);
  const Result<ModemLines> lines = ReadModemLines(os_->fd);
  if (!lines.Ok()) return settings;
  if (lines->dtr) settings.dtr = ModemControl::On;
  if (lines->rts && settings.rts == ModemControl::Off) settings.rts = ModemControl::On;
  return settings;
}

// A driver that cannot make a rate silently takes another one, so the rate is read back.
// Toggling RTS while sending serves lines with several senders; here RTS is just raised. The
// handshake lowers RTS and raises it again, but does not raise it at the start.
Status SerialLine::Apply(const LineSettings& settings) {
  const int fd = os_->fd;
  termios2 terminal{};
  if (const Status read = ReadTerminal(fd, terminal); !read.Ok()) return read;
  if (const Status put = PutSettings(settings, terminal); !put.Ok()) return put;
  if (const Status written = WriteTerminal(fd, terminal); !written.Ok()) return written;
  if (const Status read = ReadTerminal(fd, terminal); !read.Ok()) return read;
  os_->baud = terminal.c_ospeed;
  const unsigned apart = std::max(os_->baud, settings.baud) - std::min(os_->baud, settings.baud);
  if (apart > settings.baud / 32) return {Error::Unsupported, 0, "set the baud rate"};
  (void)SetModemLine(fd, ModemLine::Rts, settings.rts != ModemControl::Off);
  if (settings.dtr != ModemControl::Off) (void)SetModemLine(fd, ModemLine::Dtr, true);
  return {};
}

Result<unsigned> SerialLine::FramingErrors() const { return CountFramingErrors(os_->fd); }

Status SerialLine::WatchInput() { return {}; }
Status SerialLine::PrepareReads() { return {}; }

// A hang-up shows while bytes from before it are still there.
Result<std::size_t> SerialLine::Receive(std::span<std::byte> into, Milliseconds atMost) {
  Ready ready = Ready::Input;
  if (atMost.count() > 0) ready = PollInput(os_->fd, atMost);
  if (ready == Ready::Nothing) return std::size_t{0};
  Transfer read = ReadOnce(os_->fd, into);
  if (read.how == Ended::Nothing && ready == Ready::HungUp) read.how = Ended::HungUp;
  return Outcome(read, 0, "read");
}

// A read reaches all that the kernel holds, also in its hand-over queue.
Status SerialLine::PurgeDriver() { return {}; }

void SerialLine::NapFor(std::size_t bytes) { NapForBytes(bytes, os_->baud); }

// Naps instead of polling: poll may call a full pseudo-terminal writable although it takes nothing.
Result<std::size_t> SerialLine::Transmit(std::span<const std::byte> from) {
  Deadline deadline(kWritePatience);
  std::size_t sent = 0;
  while (sent < from.size()) {
    const Transfer written = WriteOnce(os_->fd, from.subspan(sent));
    if (written.how == Ended::Bytes) {
      sent += written.count;
      deadline = Deadline(kWritePatience);
    } else if (written.how != Ended::Nothing) {
      return Outcome(written, sent, "write");
    } else if (deadline.Passed()) {
      break;
    } else {
      Nap(kLongestNap);
    }
  }
  if (sent == 0 && !from.empty()) return Status{Error::TimedOut, 0, "write"};
  return sent;
}

// A pseudo-terminal would also discard bytes that the far end has received but not read.
Status SerialLine::PurgeOutput() {
  const Result<std::size_t> unsent = CountUnsent(os_->fd);
  if (!unsent.Ok()) return unsent.status();
  return *unsent == 0 ? Status{} : DiscardOutput(os_->fd);
}

Status SerialLine::DrainOutput() { return os_->Drain(); }

Status SerialLine::SetDtr(bool on) { return SetModemLine(os_->fd, ModemLine::Dtr, on); }
Status SerialLine::SetRts(bool on) { return SetModemLine(os_->fd, ModemLine::Rts, on); }

}  // namespace kinetrel

#include "platform/serial_line.h"

#include <unistd.h>

#include <algorithm>
#include <optional>

#include "platform/com_number.h"
#include "platform/posix/os_status.h"
#include "platform/posix/serial_calls.h"
#include "platform/posix/serial_name.h"
#include "platform/posix/terminal_settings.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kWritePatience{1000};
constexpr Milliseconds kDrainPatience{1000};

// Bytes that did pass are a success; why no more did, the next call tells.
Result<std::size_t> Outcome(const Transfer& last, std::size_t before, const char* what) {
  const std::size_t count = before + last.count;
  if (count > 0 || last.how == Ended::Nothing) return count;
  if (last.how == Ended::HungUp) return Status{Error::Closed, last.code, what};
  return StatusFromErrno(last.code, what);
}

// After a hang-up: what was received before it.
Transfer ReadRest(int fd, std::span<std::byte> into) {
  const Transfer rest = ReadOnce(fd, into);
  return rest.how == Ended::Nothing ? Transfer{Ended::HungUp} : rest;
}

// ---- Time-outs -----------------------------------------------------------------------------

// How much longer one read may wait.
class ReadClock {
 public:
  ReadClock(const ReadTimeouts& timeouts, std::size_t count)
      : total_(Total(timeouts, count)), interval_(timeouts.interval), gap_(kForever) {}

  void BytesArrived() {
    if (interval_.count() != 0) gap_ = Deadline(interval_);
  }
  Milliseconds Remaining() const { return std::min(total_.Remaining(), gap_.Remaining()); }

 private:
  static Milliseconds Total(const ReadTimeouts& timeouts, std::size_t count) {
    if (timeouts.multiplier == 0 && timeouts.constant == 0) return kForever;
    return Milliseconds(std::int64_t{timeouts.multiplier} * static_cast<std::int64_t>(count) +
                        timeouts.constant);
  }

  Deadline total_;
  Milliseconds interval_;
  Deadline gap_;
};

bool ReturnsAtOnce(const ReadTimeouts& timeouts) {
  return timeouts.interval == ReadTimeouts::kReturnAtOnce && timeouts.multiplier == 0 &&
         timeouts.constant == 0;
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
  ReadTimeouts timeouts;
  std::optional<termios2> found;  // the settings to leave behind; none for what is no terminal
  std::optional<int> foundDriverFlags;
  unsigned baud = 0;
};

// Bytes that a stuck line would not send are dropped: closing it would wait for them for 30 s.
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
  if (!ReadTerminal(fd, terminal).Ok()) return {};  // no terminal: Capabilities will say so
  if (const Status claimed = ClaimLine(fd); !claimed.Ok()) return claimed;
  // Root may open a name without hardware behind it, and learns it here only.
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
  if (!read.Ok()) return SerialCapabilities{};  // drivers of other devices refuse in many ways
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

// A driver that cannot make a rate takes another without a word; so the rate is read back.
// RTS toggling while sending is for lines with several talkers: here the line is just raised. The
// handshake lowers RTS and raises it again, but does not raise it to begin with.
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

Status SerialLine::SetReadTimeouts(const ReadTimeouts& timeouts) {
  os_->timeouts = timeouts;
  return {};
}

Status SerialLine::WatchInput() { return {}; }

Result<std::size_t> SerialLine::Read(std::span<std::byte> into) {
  if (into.empty()) return std::size_t{0};
  if (ReturnsAtOnce(os_->timeouts)) return Outcome(ReadOnce(os_->fd, into), 0, "read");
  ReadClock clock(os_->timeouts, into.size());
  std::size_t got = 0;
  while (got < into.size()) {
    const Transfer read = ReadOnce(os_->fd, into.subspan(got));
    if (read.how == Ended::Bytes) {
      got += read.count;
      clock.BytesArrived();
    } else if (read.how == Ended::Nothing) {
      const Milliseconds left = clock.Remaining();
      if (left.count() == 0) break;
      if (PollInput(os_->fd, left) == Ready::HungUp) {
        return Outcome(ReadRest(os_->fd, into.subspan(got)), got, "read");
      }
    } else {
      return Outcome(read, got, "read");
    }
  }
  return got;
}

// Naps rather than polls: a full pseudo-terminal may call itself writable and take nothing.
Result<std::size_t> SerialLine::Write(std::span<const std::byte> from) {
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

// The kernel counts what has passed through its own hand-over queue; looking for input moves it
// there, so an empty count is asked for twice.
Result<std::size_t> SerialLine::InputQueueLength() const {
  const Result<std::size_t> count = CountQueued(os_->fd);
  if (!count.Ok() || *count > 0) return count;
  return PollInput(os_->fd, Milliseconds(0)) == Ready::Input ? CountQueued(os_->fd) : count;
}

// Poll tells of the first byte only, and goes on telling as long as it waits to be read. So poll is
// for an empty queue, and a begun record is napped for: one that came in one piece costs one
// wake-up, one that trickles in costs one nap after the other and never a spin.
Status SerialLine::WaitForInput(std::size_t count, Milliseconds timeout) const {
  const Deadline deadline(timeout);
  for (Ready ready = Ready::Nothing;;) {
    const Result<std::size_t> queued = CountQueued(os_->fd);
    if (!queued.Ok()) return queued.status();
    if (*queued >= count) return {};
    if (ready == Ready::HungUp) return {Error::Closed, 0, "wait for input"};
    const Milliseconds left = deadline.Remaining();
    if (left.count() == 0) return {Error::TimedOut, 0, "wait for input"};
    if (*queued == 0 && ready == Ready::Nothing) {
      ready = PollInput(os_->fd, left);
    } else {
      NapForBytes(count - *queued, os_->baud);
    }
  }
}

// Emptying the queue lets the kernel hand over what it still held back; that goes too. A device
// that never pauses has always more.
Status SerialLine::PurgeInput() {
  constexpr int kMostRounds = 4;
  for (int round = 0; round < kMostRounds; ++round) {
    if (const Status purged = DiscardInput(os_->fd); !purged.Ok()) return purged;
    if (PollInput(os_->fd, Milliseconds(0)) != Ready::Input) break;
  }
  return {};
}

// A pseudo-terminal would also discard what the far end has received and not read yet.
Status SerialLine::PurgeOutput() {
  const Result<std::size_t> unsent = CountUnsent(os_->fd);
  if (!unsent.Ok()) return unsent.status();
  return *unsent == 0 ? Status{} : DiscardOutput(os_->fd);
}

Status SerialLine::DrainOutput() { return os_->Drain(); }

Status SerialLine::SetDtr(bool on) { return SetModemLine(os_->fd, ModemLine::Dtr, on); }
Status SerialLine::SetRts(bool on) { return SetModemLine(os_->fd, ModemLine::Rts, on); }

}  // namespace kinetrel

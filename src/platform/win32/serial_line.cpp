#include "platform/serial_line.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "platform/timer.h"
#include "platform/win32/line_settings.h"
#include "platform/win32/os.h"
#include "platform/win32/serial_calls.h"

namespace kinetrel {
namespace {

// Without it, a write would never end while the handshake holds the line.
constexpr DWORD kWritePatience = 1000;  // ms
constexpr Milliseconds kDrainPatience{1000};
constexpr Milliseconds kStep{1};
constexpr Milliseconds kLongestRead{1000};  // of one call; the caller waits on

// The codes of the fixed rates end at this one; the code above it means any rate. Wine reports
// every port with 115200 at most, so there the user must confirm that it takes any rate.
bool TakesAnyRate(const COMMPROP& properties) {
  constexpr DWORD kLastFixedRate = 0x40000;
  return properties.dwMaxBaud > kLastFixedRate || std::getenv("KINETREL_ANY_MAX_BAUD") != nullptr;
}

bool IsSerial(const COMMPROP& properties) {
  return (properties.dwServiceMask & SP_SERIALCOMM) != 0 && properties.dwSettableParams != 0 &&
         properties.dwSettableBaud != 0 && properties.wSettableData != 0 &&
         properties.wSettableStopParity != 0;
}

bool HasRtsCts(const COMMPROP& properties) {
  return (properties.dwProvCapabilities & PCF_RTSCTS) != 0 &&
         (properties.dwSettableParams & SP_HANDSHAKING) != 0;
}

}  // namespace

// ---- The line ------------------------------------------------------------------------------

struct SerialLine::Os {
  explicit Os(Handle opened) : line(std::move(opened)) {}
  Os(const Os&) = delete;
  Os& operator=(const Os&) = delete;
  ~Os();

  HANDLE get() const { return line.get(); }
  Status TakeOver();
  Status Drain() const;
  Status ReceiveEvent();
  Result<std::size_t> Received() const;
  Status LimitReads(Milliseconds atMost);

  Handle line;
  std::optional<DCB> found;  // the settings to restore; none for a device that is not a serial line
  std::optional<COMMTIMEOUTS> foundTimes;
  std::optional<DWORD> readLimit;  // ms; of the time-outs in force
  bool dtrRaised = true;
  TimerResolution fineSteps;  // without it a step of 1 ms takes 16
  std::unique_ptr<DWORD> events = std::make_unique<DWORD>(0);
  bool eventStillDue = false;
};

// Drops the bytes that a stuck line does not send: closing would wait for them.
SerialLine::Os::~Os() {
  if (found) {
    if (!Drain().Ok()) (void)DiscardOutput(get());
    (void)WriteLine(get(), *found);
  }
  if (foundTimes) (void)WriteTimes(get(), *foundTimes);
  if (eventStillDue) (void)events.release();  // the system still writes to it
}

Status SerialLine::Os::TakeOver() {
  DCB record{};
  if (!ReadLine(get(), record).Ok()) return {};  // not a serial line: Capabilities reports it
  found = record;
  COMMTIMEOUTS times{};
  if (ReadTimes(get(), times).Ok()) foundTimes = times;
  MakeRaw(record);
  return WriteLine(get(), record);
}

Status SerialLine::Os::Drain() const {
  for (const Deadline deadline(kDrainPatience);; SleepFor(kStep)) {
    const Result<Queued> queued = CountQueued(get());
    if (!queued.Ok()) return queued.status();
    if (queued->unsent == 0) return FlushHardware(get());
    if (deadline.Passed()) return {Error::TimedOut, 0, "send what was written"};
  }
}

// Waits until a byte may have come. An event without bytes, or a call that returns before the
// event, does not make the caller spin.
Status SerialLine::Os::ReceiveEvent() {
  if (!eventStillDue) {
    if (const Status waited = WaitForEvent(get(), *events); !waited.Ok()) return waited;
  }
  eventStillDue = *events == 0;
  if ((*events & EV_RXCHAR) == 0) SleepFor(kStep);
  return {};
}

Result<std::size_t> SerialLine::Os::Received() const {
  const Result<Queued> queued = CountQueued(get());
  if (!queued.Ok()) return queued.status();
  return queued->received;
}

// A read waits this long for the bytes that it asks for.
Status SerialLine::Os::LimitReads(Milliseconds atMost) {
  const auto limit = static_cast<DWORD>(std::min(atMost, kLongestRead).count());
  if (readLimit == limit) return {};
  COMMTIMEOUTS times{};
  times.ReadTotalTimeoutConstant = limit;
  times.WriteTotalTimeoutConstant = kWritePatience;
  const Status written = WriteTimes(get(), times);
  if (written.Ok()) readLimit = limit;
  return written;
}

SerialLine::SerialLine(std::unique_ptr<Os> os) : os_(std::move(os)) {}
SerialLine::SerialLine(SerialLine&&) noexcept = default;
SerialLine& SerialLine::operator=(SerialLine&&) noexcept = default;
SerialLine::~SerialLine() = default;

Result<SerialLine> SerialLine::Open(const std::string& name) {
  Result<Handle> opened = OpenSerialDevice(SerialDevicePath(name));
  if (!opened.Ok()) return opened.status();
  auto os = std::make_unique<Os>(std::move(*opened));
  if (const Status taken = os->TakeOver(); !taken.Ok()) return taken;
  return SerialLine(std::move(os));
}

// The system reports a port in use and a port that is not permitted in the same way.
std::string SerialLine::ExplainOpenFailure(const std::string& name, const Status& failure) {
  const std::string path = SerialDevicePath(name);
  const std::string subject = path == "\\\\.\\" + name ? name + ": " : name + " (" + path + "): ";
  if (failure.error == Error::NotFound) {
    if (!ComNumber(name)) return subject + "no such device";
    return subject + "no such device; KINETREL_" + name + " can name another one";
  }
  if (failure.error == Error::Busy) return subject + "in use by another program";
  if (failure.error == Error::Denied) {
    return subject + "in use by another program, or this account may not use it";
  }
  if (failure.error == Error::Invalid) return subject + "not a serial device";
  return subject + Describe(failure);
}

Result<SerialCapabilities> SerialLine::Capabilities() const {
  const Result<COMMPROP> properties = ReadProperties(os_->get());
  if (!properties.Ok()) return properties.status();
  return SerialCapabilities{IsSerial(*properties) && TakesAnyRate(*properties),
                            HasRtsCts(*properties)};
}

Result<LineSettings> SerialLine::Settings() const {
  const Result<DCB> record = ReadConfiguration(os_->get());
  if (!record.Ok()) return record.status();
  return GetSettings(*record);
}

// A driver that cannot make a rate may silently take another one, so the rate is read back.
Status SerialLine::Apply(const LineSettings& settings) {
  DCB record{};
  if (const Status read = ReadLine(os_->get(), record); !read.Ok()) return read;
  PutSettings(settings, os_->dtrRaised, record);
  if (const Status written = WriteLine(os_->get(), record); !written.Ok()) return written;
  if (settings.dtr != ModemControl::Off) os_->dtrRaised = true;
  if (const Status read = ReadLine(os_->get(), record); !read.Ok()) return read;
  const unsigned made = record.BaudRate;
  const unsigned apart = std::max(made, settings.baud) - std::min(made, settings.baud);
  if (apart > settings.baud / 32) return {Error::Unsupported, 0, "set the baud rate"};
  return {};
}

// The system clears its error flags whenever the queue is looked at, and counts nothing.
Result<unsigned> SerialLine::FramingErrors() const {
  return Status{Error::Unsupported, 0, "count framing errors"};
}

Status SerialLine::WatchInput() { return WatchReceivedBytes(os_->get()); }

Status SerialLine::PrepareReads() { return os_->LimitReads(kStep); }

// The system's wait for an event has no time-out, but its read has one: so a read of one byte
// waits, and a second read takes the rest. After a read without bytes the line is asked whether it
// is still there, as the read itself may not say so (Wine's does not).
Result<std::size_t> SerialLine::Receive(std::span<std::byte> into, Milliseconds atMost) {
  Result<std::size_t> waiting = os_->Received();
  if (!waiting.Ok()) return waiting;
  std::size_t got = 0;
  if (*waiting == 0 && atMost == kForever) {
    if (const Status waited = os_->ReceiveEvent(); !waited.Ok()) return waited;
    waiting = os_->Received();
  } else if (*waiting == 0 && atMost.count() > 0) {
    if (const Status limited = os_->LimitReads(atMost); !limited.Ok()) return limited;
    const Result<std::size_t> first = ReadOnce(os_->get(), into.first(1));
    if (!first.Ok()) return first;
    got = *first;
    waiting = os_->Received();
  }
  if (!waiting.Ok()) return got > 0 ? Result(got) : waiting;
  into = into.subspan(got, std::min(*waiting, into.size() - got));
  if (into.empty()) return got;
  const Result<std::size_t> rest = ReadOnce(os_->get(), into);
  if (rest.Ok()) return got + *rest;
  return got > 0 ? Result(got) : rest;
}

Status SerialLine::PurgeDriver() { return DiscardInput(os_->get()); }

void SerialLine::NapFor(std::size_t) { SleepFor(kStep); }

Result<std::size_t> SerialLine::Transmit(std::span<const std::byte> from) {
  std::size_t sent = 0;
  while (sent < from.size()) {
    const Result<std::size_t> written = WriteOnce(os_->get(), from.subspan(sent));
    if (!written.Ok() && sent == 0) return written;
    if (!written.Ok() || *written == 0) break;
    sent += *written;
  }
  if (sent == 0 && !from.empty()) return Status{Error::TimedOut, 0, "write"};
  return sent;
}

Status SerialLine::PurgeOutput() { return DiscardOutput(os_->get()); }
Status SerialLine::DrainOutput() { return os_->Drain(); }

Status SerialLine::SetDtr(bool on) {
  const Status set = SetModemLine(os_->get(), on ? SETDTR : CLRDTR);
  if (set.Ok()) os_->dtrRaised = on;
  return set;
}

Status SerialLine::SetRts(bool on) { return SetModemLine(os_->get(), on ? SETRTS : CLRRTS); }

}  // namespace kinetrel

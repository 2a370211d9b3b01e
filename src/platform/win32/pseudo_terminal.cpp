// On this system a program cannot make a serial port. Instead it uses a port that a null modem,
// real or made by a driver, joins to the host's port. KINETREL_EMULATE names the two, ours first,
// as in "COM6 COM5".
#include "platform/pseudo_terminal.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "platform/named_objects.h"
#include "platform/serial_device_port.h"
#include "platform/win32/line_settings.h"
#include "platform/win32/serial_calls.h"

namespace kinetrel {
namespace {

using std::chrono::nanoseconds;

constexpr Milliseconds kStep{1};
// A write ends at once; the system has no shorter time.
constexpr DWORD kWriteTime = 1;  // ms

Status SetUp(HANDLE line, unsigned baud) {
  DCB record{};
  if (const Status read = ReadLine(line, record); !read.Ok()) return read;
  MakeRaw(record);
  LineSettings settings = GetSettings(record);
  settings.baud = baud;
  settings.byteSize = 8;
  settings.parity = Parity::None;
  settings.stopBits = StopBits::One;
  PutSettings(settings, true, record);
  if (const Status written = WriteLine(line, record); !written.Ok()) return written;
  COMMTIMEOUTS times{};
  times.ReadIntervalTimeout = ReadTimeouts::kReturnAtOnce;
  times.WriteTotalTimeoutConstant = kWriteTime;
  return WriteTimes(line, times);
}

}  // namespace

struct PseudoTerminal::Os {
  std::string ours;
  std::string hosts;
  std::string path;  // the host's, while plugged
  unsigned baud = 0;
  Handle line;
  Event wake;

  static Result<PseudoTerminal> Open(const std::string& ours, const std::string& hosts,
                                     unsigned baud);
};

PseudoTerminal::PseudoTerminal(std::unique_ptr<Os> os) : os_(std::move(os)) {}
PseudoTerminal::PseudoTerminal(PseudoTerminal&&) noexcept = default;
PseudoTerminal& PseudoTerminal::operator=(PseudoTerminal&&) noexcept = default;
PseudoTerminal::~PseudoTerminal() = default;

Result<PseudoTerminal> PseudoTerminal::Open(unsigned baud) {
  const char* const names = std::getenv("KINETREL_EMULATE");
  std::istringstream both(names != nullptr ? names : "");
  std::string ours, hosts;
  if (!(both >> ours)) {
    return Status{Error::NotFound, 0, "open the port that KINETREL_EMULATE should name"};
  }
  if (!(both >> hosts)) hosts = ours;
  return Os::Open(ours, hosts, baud);
}

Result<PseudoTerminal> PseudoTerminal::Os::Open(const std::string& ours, const std::string& hosts,
                                                unsigned baud) {
  auto os = std::make_unique<Os>();
  os->ours = ours;
  os->hosts = hosts;
  PseudoTerminal terminal(std::move(os));
  if (const Status plugged = terminal.Plug(baud); !plugged.Ok()) return plugged;
  return terminal;
}

const std::string& PseudoTerminal::path() const { return os_->path; }

void PseudoTerminal::Unplug() {
  os_->line = Handle();
  os_->path.clear();
}

Status PseudoTerminal::Plug(unsigned baud) {
  Unplug();
  Result<Handle> opened = OpenSerialDevice(SerialDevicePath(os_->ours));
  if (!opened.Ok()) return opened.status();
  if (const Status ready = SetUp(opened->get(), baud); !ready.Ok()) return ready;
  os_->line = std::move(*opened);
  os_->path = os_->hosts;
  os_->baud = baud;
  return {};
}

bool PseudoTerminal::IsPlugged() const { return static_cast<bool>(os_->line); }

// A real line does not show whether a host is at its other end, or at what rate.
bool PseudoTerminal::HasHost() const { return IsPlugged(); }
unsigned PseudoTerminal::HostBaud() const { return IsPlugged() ? os_->baud : 0; }

std::size_t PseudoTerminal::Read(std::span<std::byte> into) {
  if (!IsPlugged() || into.empty()) return 0;
  const Result<std::size_t> got = ReadOnce(os_->line.get(), into);
  return got.Ok() ? *got : 0;
}

std::size_t PseudoTerminal::Write(std::span<const std::byte> from) {
  if (!IsPlugged() || from.empty()) return from.size();
  const Result<std::size_t> taken = WriteOnce(os_->line.get(), from);
  return taken.Ok() ? *taken : 0;
}

void PseudoTerminal::Wait(nanoseconds atMost) {
  const auto whole =
      std::chrono::ceil<Milliseconds>(std::min<nanoseconds>(atMost, std::chrono::hours(1)));
  const Deadline deadline(whole);
  for (;;) {
    const Result<Queued> queued =
        IsPlugged() ? CountQueued(os_->line.get()) : Result<Queued>(Queued{});
    if (queued.Ok() && queued->received > 0) return;
    if (os_->wake.Wait(std::min(kStep, deadline.Remaining()))) break;
    if (deadline.Passed()) return;
  }
  os_->wake.Reset();
}

void PseudoTerminal::Interrupt() { os_->wake.Set(); }

Result<std::unique_ptr<DevicePort>> OpenSerialDevicePort(const std::string& name, unsigned baud) {
  auto opened = PseudoTerminal::Os::Open(name, name, baud);
  if (!opened.Ok()) return opened.status();
  return std::unique_ptr<DevicePort>(std::make_unique<PseudoTerminal>(std::move(*opened)));
}

}  // namespace kinetrel

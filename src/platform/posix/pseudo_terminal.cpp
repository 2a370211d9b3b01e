#include "platform/pseudo_terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/posix/os.h"
#include "platform/posix/terminal_settings.h"

namespace kinetrel {
namespace {

using std::chrono::nanoseconds;

// The system does not report that the near end was opened, so it is checked this often.
constexpr nanoseconds kPresenceCheck = std::chrono::milliseconds(10);

Status Failure(const char* what) { return StatusFromErrno(errno, what); }

void CloseIfOpen(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

Status MakeRawAt(int fd, unsigned baud) {
  termios2 terminal{};
  if (const Status status = ReadTerminal(fd, terminal); !status.Ok()) return status;
  MakeRaw(terminal);
  LineSettings settings = GetSettings(terminal);
  settings.baud = baud;
  if (const Status status = PutSettings(settings, terminal); !status.Ok()) return status;
  return WriteTerminal(fd, terminal);
}

// Opened without the name, which another program could move meanwhile.
int OpenNearEnd(int far) { return ::ioctl(far, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC); }

bool HungUp(int far) {
  pollfd state{far, 0, 0};
  return ::poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0;
}

// Edges only: a far end without a host would report its hang-up all the time.
Status Watch(int epoll, int fd) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLET;
  if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0) return {};
  return Failure("watch a pseudo-terminal");
}

}  // namespace

struct PseudoTerminal::Os {
  int far = -1;
  int wake = -1;
  int epoll = -1;
  unsigned baud = 0;
  bool hostPresent = false;
  std::string path;

  ~Os() {
    CloseIfOpen(far);
    CloseIfOpen(wake);
    CloseIfOpen(epoll);
  }

  Status Prepare();
  Status Plug(unsigned atBaud);
  Status PlugInto(int opened);
  void Unplug();
  void HostLeft();
  void LookForHost() { hostPresent = far >= 0 && !HungUp(far); }
};

Status PseudoTerminal::Os::Prepare() {
  epoll = ::epoll_create1(EPOLL_CLOEXEC);
  wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (epoll < 0 || wake < 0) return Failure("make a pseudo-terminal's waker");
  return Watch(epoll, wake);
}

Status PseudoTerminal::Os::Plug(unsigned atBaud) {
  Unplug();
  baud = atBaud;
  far = ::open("/dev/ptmx", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (far < 0) return Failure("open a pseudo-terminal");
  const Status status = PlugInto(far);
  if (!status.Ok()) Unplug();
  return status;
}

Status PseudoTerminal::Os::PlugInto(int opened) {
  char name[128];
  if (::unlockpt(opened) != 0) return Failure("unlock a pseudo-terminal");
  // After one open and close, the far end reports that no host is there.
  int near = OpenNearEnd(opened);
  if (near < 0) return Failure("open a pseudo-terminal's near end");
  const Status raw = MakeRawAt(near, baud);
  CloseIfOpen(near);
  if (!raw.Ok()) return raw;
  if (::ptsname_r(opened, name, sizeof name) != 0) return Failure("name a pseudo-terminal");
  if (const Status status = Watch(epoll, opened); !status.Ok()) return status;
  path = name;
  return {};
}

void PseudoTerminal::Os::Unplug() {
  CloseIfOpen(far);
  path.clear();
  hostPresent = false;
}

// Drops what the host did not read, so that the next host does not get it. A host that died as the
// exclusive user leaves the terminal marked so; only a new terminal is free of the mark.
void PseudoTerminal::Os::HostLeft() {
  hostPresent = false;
  int near = OpenNearEnd(far);
  if (near < 0 && errno == EBUSY) {
    // After a failure it is unplugged, which the caller sees.
    const Status replaced = Plug(baud);
    static_cast<void>(replaced.Ok());
    return;
  }
  if (near >= 0) ::ioctl(near, TCFLSH, TCIFLUSH);
  CloseIfOpen(near);
}

PseudoTerminal::PseudoTerminal(std::unique_ptr<Os> os) : os_(std::move(os)) {}
PseudoTerminal::PseudoTerminal(PseudoTerminal&&) noexcept = default;
PseudoTerminal& PseudoTerminal::operator=(PseudoTerminal&&) noexcept = default;
PseudoTerminal::~PseudoTerminal() = default;

Result<PseudoTerminal> PseudoTerminal::Open(unsigned baud) {
  auto os = std::make_unique<Os>();
  if (const Status status = os->Prepare(); !status.Ok()) return status;
  if (const Status status = os->Plug(baud); !status.Ok()) return status;
  return PseudoTerminal(std::move(os));
}

const std::string& PseudoTerminal::path() const { return os_->path; }
void PseudoTerminal::Unplug() { os_->Unplug(); }
Status PseudoTerminal::Plug(unsigned baud) { return os_->Plug(baud); }
bool PseudoTerminal::IsPlugged() const { return os_->far >= 0; }
bool PseudoTerminal::HasHost() const { return os_->hostPresent; }

unsigned PseudoTerminal::HostBaud() const {
  termios2 terminal{};
  if (os_->far < 0 || !ReadTerminal(os_->far, terminal).Ok()) return 0;
  return GetSettings(terminal).baud;
}

std::size_t PseudoTerminal::Read(std::span<std::byte> into) {
  if (os_->far < 0) return 0;
  const ssize_t got = ::read(os_->far, into.data(), into.size());
  if (got > 0) {
    os_->hostPresent = true;  // or was present a moment ago
    return static_cast<std::size_t>(got);
  }
  // The host's leaving shows only after all its bytes were taken.
  if (got < 0 && errno == EIO && os_->hostPresent) os_->HostLeft();
  return 0;
}

std::size_t PseudoTerminal::Write(std::span<const std::byte> from) {
  if (!os_->hostPresent) return from.size();
  const ssize_t wrote = ::write(os_->far, from.data(), from.size());
  return wrote > 0 ? static_cast<std::size_t>(wrote) : 0;
}

void PseudoTerminal::Wait(nanoseconds atMost) {
  const bool look = os_->far >= 0 && !os_->hostPresent;
  const nanoseconds time = std::clamp(atMost, nanoseconds(0),
                                      look ? kPresenceCheck : nanoseconds(std::chrono::hours(1)));
  const timespec patience{time.count() / 1'000'000'000, time.count() % 1'000'000'000};
  pollfd ready{os_->epoll, POLLIN, 0};
  epoll_event events[2];
  if (::ppoll(&ready, 1, &patience, nullptr) == 1) ::epoll_wait(os_->epoll, events, 2, 0);
  if (look) os_->LookForHost();
}

void PseudoTerminal::Interrupt() { ::eventfd_write(os_->wake, 1); }

}  // namespace kinetrel

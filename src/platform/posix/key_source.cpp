#include "platform/key_source.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix/terminal_mode.h"

namespace kinetrel {
namespace {

constexpr int kInput = STDIN_FILENO;

struct Source {
  bool terminal = false;
  bool ended = false;
};
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
constinit Source source;

bool IsReadable() { return !source.ended && (!source.terminal || InKeyMode()); }

// The events that poll reports for standard input before the deadline; 0: none.
int PollInput(const Deadline& deadline) {
  pollfd watched{kInput, POLLIN, 0};
  for (;;) {
    const int count = ::poll(&watched, 1, static_cast<int>(deadline.Remaining().count()));
    if (count > 0) return watched.revents;
    if (count == 0 || errno != EINTR) return 0;
  }
}

// Reads a byte. A process that has just gone to the background gets EIO and is not stopped.
ssize_t ReadFromForeground(std::uint8_t& byte) {
  sigset_t stop;
  sigset_t before;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTTIN);
  ::pthread_sigmask(SIG_BLOCK, &stop, &before);
  const ssize_t got = ::read(kInput, &byte, 1);
  const int error = errno;
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return got;
}

// Whether the input has ended, after a read without a byte. A terminal that has not hung up also
// answers so when another process was quicker (0) or is in the foreground (EIO).
bool InputEnded(ssize_t got, int events) {
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return false;
  const bool lives = source.terminal && (events & POLLHUP) == 0;
  return !lives || (got < 0 && errno != EIO);
}

}  // namespace

void KeySource::Open() { source = {StartKeyMode(), false}; }

void KeySource::Close() {
  if (source.terminal) StopKeyMode();
}

bool KeySource::HasInput() { return IsReadable() && PollInput(Deadline(Milliseconds(0))) != 0; }

bool KeySource::HasWholeKeys() { return false; }

std::optional<Key> KeySource::TakeKey() { return {}; }

std::optional<std::uint8_t> KeySource::TakeByte(const Deadline& deadline) {
  if (!IsReadable()) return {};
  const int events = PollInput(deadline);
  if (events == 0) return {};
  const bool closed = (events & POLLNVAL) != 0;
  std::uint8_t byte = 0;
  const ssize_t got = closed ? 0 : ReadFromForeground(byte);
  if (got == 1) return byte;
  source.ended = closed || InputEnded(got, events);
  return {};
}

}  // namespace kinetrel

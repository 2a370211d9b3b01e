#include "platform/console.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/clock.h"
#include "platform/key_decoder.h"
#include "platform/posix/terminal_mode.h"

namespace kinetrel {
namespace {

constexpr int kInput = STDIN_FILENO;
constexpr Milliseconds kEscapeLook{30};

// What was typed and not yet taken: one per process, as standard input is. Written by whoever
// takes or puts back keys and by the session, all under the lock.
struct KeyInput {
  std::mutex lock;
  bool open = false;
  bool terminal = false;
  bool ended = false;
  std::array<std::uint8_t, kLongestKeySequence> bytes{};  // read, but no key yet
  std::size_t count = 0;
  std::array<Key, 16> putBack{};  // the last one comes first
  std::size_t putBackCount = 0;
  std::uint64_t taken = 0;  // keys, less those put back
};
constinit KeyInput input;

// ---- Bytes ---------------------------------------------------------------------------------

// What poll says of standard input by the deadline; 0 for nothing.
int PollInput(const Deadline& deadline) {
  pollfd watched{kInput, POLLIN, 0};
  for (;;) {
    const int count = ::poll(&watched, 1, static_cast<int>(deadline.Remaining().count()));
    if (count > 0) return watched.revents;
    if (count == 0 || errno != EINTR) return 0;
  }
}

// Reads a byte; a process that has just gone to the background gets EIO rather than be stopped.
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

// Whether a read that brought nothing was the last. A terminal that has not hung up says so when
// another process was quicker (0) or is in the foreground (EIO).
bool InputEnded(ssize_t got, int events) {
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return false;
  const bool lives = input.terminal && (events & POLLHUP) == 0;
  return !lives || (got < 0 && errno != EIO);
}

// Adds the next byte to those that are no key yet; one at a time, so that what is typed ahead of
// the program's end is left to the shell.
bool TakeByte(const Deadline& deadline) {
  if (input.ended || (input.terminal && !InKeyMode())) return false;
  const int events = PollInput(deadline);
  if (events == 0) return false;
  std::uint8_t& next = input.bytes[input.count];
  const ssize_t got = (events & POLLNVAL) != 0 ? 0 : ReadFromForeground(next);
  if (got == 1) {
    ++input.count;
    return true;
  }
  input.ended = (events & POLLNVAL) != 0 || InputEnded(got, events);
  return false;
}

void DropBytes(std::size_t count) {
  std::copy(input.bytes.begin() + static_cast<std::ptrdiff_t>(count), input.bytes.end(),
            input.bytes.begin());
  input.count -= count;
}

// ---- Keys ----------------------------------------------------------------------------------

// One character or one sequence at the most: a pipe that pours sequences which are no keys must not
// hold the one who asks for a key.
std::optional<Key> NextTypedKey() {
  Deadline deadline(input.count > 0 ? kEscapeLook : Milliseconds{0});
  bool silent = false;
  for (;;) {
    const KeyDecoding decoding = DecodeKey({input.bytes.data(), input.count}, silent);
    if (decoding.used > 0) {
      DropBytes(decoding.used);
      return decoding.key;
    }
    const bool first = input.count == 0;
    silent = !TakeByte(deadline);
    if (silent && first) return {};
    if (first) deadline = Deadline(kEscapeLook);
  }
}

std::optional<Key> NextKey() {
  if (input.putBackCount > 0) return input.putBack[--input.putBackCount];
  return input.open ? NextTypedKey() : std::nullopt;
}

// Whether anything waits to be taken, a key or the beginning of one.
bool KeyWaits() {
  if (input.putBackCount > 0 || input.count > 0) return true;
  if (!input.open || input.ended || (input.terminal && !InKeyMode())) return false;
  return PollInput(Deadline(Milliseconds(0))) != 0;
}

}  // namespace

KeySession::KeySession() {
  const std::lock_guard guard(input.lock);
  owner_ = !input.open;
  if (!owner_) return;
  input.open = true;
  input.ended = false;
  input.terminal = StartKeyMode();
}

KeySession::~KeySession() {
  if (!owner_) return;
  const std::lock_guard guard(input.lock);
  if (input.terminal) StopKeyMode();
  input.open = false;
  input.count = 0;
  input.putBackCount = 0;
}

std::optional<Key> TakeKey() {
  const std::lock_guard guard(input.lock);
  const std::optional<Key> key = NextKey();
  if (key.has_value()) ++input.taken;
  return key;
}

std::optional<Key> TakeLeftKey(Milliseconds patience) {
  std::uint64_t before = 0;
  {
    const std::lock_guard guard(input.lock);
    if (!KeyWaits()) return {};
    before = input.taken;
  }
  SleepFor(patience);
  const std::lock_guard guard(input.lock);
  return input.taken == before ? NextKey() : std::nullopt;
}

void PushBackKey(Key key) {
  const std::lock_guard guard(input.lock);
  if (input.putBackCount == input.putBack.size()) return;
  input.putBack[input.putBackCount++] = key;
  --input.taken;
}

// ---- Standard output -----------------------------------------------------------------------

bool StandardOutputIsTerminal() { return ::isatty(STDOUT_FILENO) != 0; }

TerminalSize StandardOutputSize() {
  winsize size{};
  TerminalSize told;
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return told;
  if (size.ws_col > 0) told.columns = size.ws_col;
  if (size.ws_row > 0) told.rows = size.ws_row;
  return told;
}

bool EnableTerminalSequences() {
  const char* const kind = std::getenv("TERM");
  return StandardOutputIsTerminal() && kind != nullptr && *kind != '\0' &&
         std::strcmp(kind, "dumb") != 0;
}

}  // namespace kinetrel

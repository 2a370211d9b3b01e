#include "platform/stream_socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/host_lookup.h"
#include "platform/posix/os.h"

namespace kinetrel {
namespace {

constexpr int kBacklog = 256;                     // more than these wait a second
constexpr std::int64_t kLongestPoll = 1'000'000;  // ms

int FdOf(std::intptr_t handle) { return static_cast<int>(handle); }

// The network's own codes; the others are those of every descriptor.
Status Failure(int code, const char* what) {
  switch (code) {
    case ECONNREFUSED:
    case ECONNRESET:
    case ECONNABORTED:
    case ENOTCONN:
      return {Error::Closed, code, what};
    case EHOSTUNREACH:
    case ENETUNREACH:
    case EADDRNOTAVAIL:
      return {Error::NotFound, code, what};
    case EADDRINUSE:
      return {Error::Busy, code, what};
    case ENOBUFS:
      return {Error::NoSpace, code, what};
    default:
      return StatusFromErrno(code, what);
  }
}

bool WouldBlock(int code) { return code == EAGAIN || code == EWOULDBLOCK; }

int PollOnce(std::span<pollfd> watched, Milliseconds timeout) {
  const std::int64_t time = std::clamp<std::int64_t>(timeout.count(), 0, kLongestPoll);
  return ::poll(watched.data(), watched.size(), static_cast<int>(time));
}

// An ended connection is ready too; the next transfer reports it.
Status Await(int fd, short events, const Deadline& deadline, const char* what) {
  for (;;) {
    const Milliseconds left = deadline.Remaining();
    pollfd watched{fd, events, 0};
    const int count = PollOnce({&watched, 1}, left);
    if (count > 0) return {};
    if (count < 0 && errno != EINTR) return Failure(errno, what);
    if (count == 0 && left.count() <= kLongestPoll) return {Error::TimedOut, 0, what};
  }
}

void SetOption(int fd, int level, int name, int value) {
  ::setsockopt(fd, level, name, &value, sizeof value);
}

// The connection works without these options, so their results are ignored.
void SetUp(int fd) {
  SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 30);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 10);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
}

int NewSocket(int family) {
  return ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

const sockaddr* SystemForm(const StreamAddress& address) {
  return static_cast<const sockaddr*>(static_cast<const void*>(address.bytes.data()));
}

Status FinishConnect(int fd, const Deadline& deadline) {
  constexpr const char* kWhat = "connecting";
  if (const Status status = Await(fd, POLLOUT, deadline, kWhat); !status.Ok()) return status;
  int code = 0;
  socklen_t size = sizeof code;
  ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &code, &size);
  return Failure(code, kWhat);
}

}  // namespace

// ---- One connection --------------------------------------------------------------------------

void StreamSocket::Close() {
  if (handle_ != kNoStream) ::close(FdOf(Release()));
}

Result<StreamSocket> StreamSocket::Connect(const StreamAddress& to, const Deadline& deadline) {
  const int fd = NewSocket(to.family);
  if (fd < 0) return Failure(errno, "making a socket");
  StreamSocket socket(fd);
  SetUp(fd);
  // An interrupted attempt goes on by itself, like a slow one.
  if (::connect(fd, SystemForm(to), to.length) == 0) return socket;
  if (errno != EINPROGRESS && errno != EINTR) return Failure(errno, "connecting");
  if (const Status status = FinishConnect(fd, deadline); !status.Ok()) return status;
  return socket;
}

Result<std::size_t> StreamSocket::SendSome(std::span<const std::byte> bytes) {
  for (;;) {
    const ssize_t sent = ::send(FdOf(handle_), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) return static_cast<std::size_t>(sent);
    if (WouldBlock(errno)) return std::size_t{0};
    if (errno != EINTR) return Failure(errno, "sending");
  }
}

Result<std::size_t> StreamSocket::ReceiveSome(std::span<std::byte> into) {
  constexpr const char* kWhat = "receiving";
  for (;;) {
    const ssize_t got = ::recv(FdOf(handle_), into.data(), into.size(), 0);
    if (got > 0) return static_cast<std::size_t>(got);
    if (got == 0) return Status{Error::Closed, 0, kWhat};
    if (WouldBlock(errno)) return std::size_t{0};
    if (errno != EINTR) return Failure(errno, kWhat);
  }
}

Status StreamSocket::AwaitInput(const Deadline& deadline) const {
  return Await(FdOf(handle_), POLLIN, deadline, "receiving");
}

Status StreamSocket::AwaitRoom(const Deadline& deadline) const {
  return Await(FdOf(handle_), POLLOUT, deadline, "sending");
}

void StreamSocket::LimitBuffers(int bytes) {
  SetOption(FdOf(handle_), SOL_SOCKET, SO_SNDBUF, bytes);
  SetOption(FdOf(handle_), SOL_SOCKET, SO_RCVBUF, bytes);
}

bool StreamSocket::IsQuiet() const {
  pollfd watched{FdOf(handle_), POLLIN, 0};
  return PollOnce({&watched, 1}, Milliseconds(0)) == 0;
}

// ---- Listening -------------------------------------------------------------------------------

Result<StreamListener> StreamListener::Open(const std::string& address, std::uint16_t port) {
  constexpr const char* kWhat = "listening";
  const auto at = NumericAddresses(address, port);
  if (!at.Ok()) return at.status();
  const StreamAddress& where = at->front();
  const int fd = NewSocket(where.family);
  if (fd < 0) return Failure(errno, kWhat);
  StreamListener listener(fd);
  // The next run can use the port although connections of this one have just ended.
  SetOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);
  const bool listens =
      ::bind(fd, SystemForm(where), where.length) == 0 && ::listen(fd, kBacklog) == 0;
  if (!listens) return Failure(errno, kWhat);
  return listener;
}

StreamListener::StreamListener(StreamListener&& other) noexcept
    : handle_(std::exchange(other.handle_, kNoStream)) {}

StreamListener::~StreamListener() {
  if (handle_ != kNoStream) ::close(FdOf(handle_));
}

Result<StreamSocket> StreamListener::Accept() {
  constexpr const char* kWhat = "accepting a connection";
  for (;;) {
    const int fd = ::accept4(FdOf(handle_), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      SetUp(fd);
      return StreamSocket(fd);
    }
    if (WouldBlock(errno)) return Status{Error::TimedOut, 0, kWhat};
    // A connection that ended while it waited is not a failure of the listener.
    if (errno != EINTR && errno != ECONNABORTED) return Failure(errno, kWhat);
  }
}

std::uint16_t StreamListener::port() const {
  StreamAddress address;
  auto* const bytes = static_cast<sockaddr*>(static_cast<void*>(address.bytes.data()));
  socklen_t length = sizeof address.bytes;
  if (::getsockname(FdOf(handle_), bytes, &length) != 0) return 0;
  // The port stands at the same place in both families.
  const auto* const any = static_cast<const sockaddr_in*>(static_cast<const void*>(bytes));
  return ntohs(any->sin_port);
}

bool WaitForStreams(const StreamListener* listener, std::span<StreamWait> waits,
                    Milliseconds timeout) {
  std::array<pollfd, kMostStreamWaits + 1> watched;
  const std::size_t count = std::min(waits.size(), kMostStreamWaits);
  for (std::size_t i = 0; i < count; ++i) {
    const short events = waits[i].forRoom ? POLLOUT : POLLIN;
    watched[i] = {FdOf(waits[i].socket->handle_), events, 0};
  }
  watched[count] = {listener != nullptr ? FdOf(listener->handle_) : -1, POLLIN, 0};
  const int ready = PollOnce(std::span(watched).first(count + 1), timeout);
  for (std::size_t i = 0; i < count; ++i) waits[i].ready = ready > 0 && watched[i].revents != 0;
  return ready > 0 && watched[count].revents != 0;
}

}  // namespace kinetrel

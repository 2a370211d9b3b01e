#include "platform/stream_socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/posix/os.h"
#include "platform/socket_wait.h"

namespace kinetrel {
namespace {

constexpr int kBacklog = 256;                     // more than these wait a second
constexpr std::int64_t kLongestPoll = 1'000'000;  // ms

int FdOf(std::intptr_t handle) { return static_cast<int>(handle); }

bool WouldBlock(int code) { return code == EAGAIN || code == EWOULDBLOCK; }

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
  if (const Status status = AwaitSocket(fd, true, deadline, kWhat); !status.Ok()) return status;
  int code = 0;
  socklen_t size = sizeof code;
  ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &code, &size);
  return SocketFailure(code, kWhat);
}

}  // namespace

// ---- One connection --------------------------------------------------------------------------

void StreamSocket::Close() {
  if (handle_ != kNoStream) ::close(FdOf(Release()));
}

Result<StreamSocket> StreamSocket::Connect(const StreamAddress& to, const Deadline& deadline) {
  const int fd = NewSocket(to.family);
  if (fd < 0) return SocketFailure(errno, "making a socket");
  StreamSocket socket(fd);
  SetUp(fd);
  // An interrupted attempt goes on by itself, like a slow one.
  if (::connect(fd, SystemForm(to), to.length) == 0) return socket;
  if (errno != EINPROGRESS && errno != EINTR) return SocketFailure(errno, "connecting");
  if (const Status status = FinishConnect(fd, deadline); !status.Ok()) return status;
  return socket;
}

Result<std::size_t> StreamSocket::SendSome(std::span<const std::byte> bytes) {
  for (;;) {
    const ssize_t sent = ::send(FdOf(handle_), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) return static_cast<std::size_t>(sent);
    if (WouldBlock(errno)) return std::size_t{0};
    if (errno != EINTR) return SocketFailure(errno, "sending");
  }
}

Result<std::size_t> StreamSocket::ReceiveSome(std::span<std::byte> into) {
  constexpr const char* kWhat = "receiving";
  for (;;) {
    const ssize_t got = ::recv(FdOf(handle_), into.data(), into.size(), 0);
    if (got > 0) return static_cast<std::size_t>(got);
    if (got == 0) return Status{Error::Closed, 0, kWhat};
    if (WouldBlock(errno)) return std::size_t{0};
    if (errno != EINTR) return SocketFailure(errno, kWhat);
  }
}

void StreamSocket::LimitBuffers(int bytes) {
  SetOption(FdOf(handle_), SOL_SOCKET, SO_SNDBUF, bytes);
  SetOption(FdOf(handle_), SOL_SOCKET, SO_RCVBUF, bytes);
}

// ---- Listening -------------------------------------------------------------------------------

// Without the option the port stays taken for a minute.
void ClaimPort(std::intptr_t handle) { SetOption(FdOf(handle), SOL_SOCKET, SO_REUSEADDR, 1); }

Result<StreamListener> StreamListener::Open(const std::string& address, std::uint16_t port) {
  constexpr const char* kWhat = "listening";
  const auto at = NumericAddresses(address, port);
  if (!at.Ok()) return at.status();
  const StreamAddress& where = at->front();
  const int fd = NewSocket(where.family);
  if (fd < 0) return SocketFailure(errno, kWhat);
  StreamListener listener(fd);
  ClaimPort(fd);
  const bool listens =
      ::bind(fd, SystemForm(where), where.length) == 0 && ::listen(fd, kBacklog) == 0;
  if (!listens) return SocketFailure(errno, kWhat);
  return listener;
}

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
    if (errno != EINTR && errno != ECONNABORTED) return SocketFailure(errno, kWhat);
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

// ---- Waiting ---------------------------------------------------------------------------------

Result<std::size_t> PollSockets(std::span<PolledSocket> sockets, Milliseconds atMost,
                                const char* what) {
  std::array<pollfd, kMostPolledSockets> watched;
  const std::size_t count = std::min(sockets.size(), watched.size());
  for (std::size_t i = 0; i < count; ++i) {
    const short events = sockets[i].forRoom ? POLLOUT : POLLIN;
    watched[i] = {FdOf(sockets[i].handle), events, 0};  // poll skips a negative descriptor
  }
  const std::int64_t time = std::clamp<std::int64_t>(atMost.count(), 0, kLongestPoll);
  const int ready = ::poll(watched.data(), count, static_cast<int>(time));
  if (ready < 0 && errno != EINTR) return SocketFailure(errno, what);
  for (std::size_t i = 0; i < count; ++i) {
    sockets[i].isReady = ready > 0 && watched[i].revents != 0;
  }
  return static_cast<std::size_t>(std::max(ready, 0));
}

}  // namespace kinetrel

#include "platform/stream_socket.h"

#include <winsock2.h>

#include <ws2tcpip.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/socket_wait.h"
#include "platform/win32/os.h"

// Needs the types of the headers above.
#include <mstcpip.h>

namespace kinetrel {
namespace {

constexpr int kBacklog = 256;                     // beyond it, the system refuses
constexpr std::int64_t kLongestWait = 1'000'000;  // ms
constexpr int kKeepAliveProbes = 16;              // the option's number; some headers lack it

int SizeOf(std::size_t size) {
  return static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
}

bool WouldBlock() { return ::WSAGetLastError() == WSAEWOULDBLOCK; }

std::int64_t StepOf(Milliseconds timeout) {
  return std::clamp<std::int64_t>(timeout.count(), 0, kLongestWait);
}

// The connection works without these options, so their results are ignored.
void SetUp(SOCKET socket) {
  SetSocketOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  tcp_keepalive probes{1, 30'000, 10'000};
  DWORD unused = 0;
  ::WSAIoctl(socket, SIO_KEEPALIVE_VALS, &probes, sizeof probes, nullptr, 0, &unused, nullptr,
             nullptr);
  SetSocketOption(socket, IPPROTO_TCP, kKeepAliveProbes, 3);
}

const sockaddr* SystemForm(const StreamAddress& address) {
  return static_cast<const sockaddr*>(static_cast<const void*>(address.bytes.data()));
}

// On older systems poll does not report a refused attempt; select reports it as an exception.
Status AwaitConnected(SOCKET socket, const Deadline& deadline) {
  constexpr const char* kWhat = "connecting";
  for (;;) {
    const Milliseconds left = deadline.Remaining();
    const std::int64_t step = StepOf(left);
    fd_set done{1, {socket}};
    fd_set refused{1, {socket}};
    timeval time{static_cast<long>(step / 1000), static_cast<long>(step % 1000 * 1000)};
    const int count = ::select(0, nullptr, &done, &refused, &time);
    if (count > 0) return {};
    if (count < 0) return LastSocketFailure(kWhat);
    if (left.count() <= kLongestWait) return {Error::TimedOut, 0, kWhat};
  }
}

Status FinishConnect(SOCKET socket, const Deadline& deadline) {
  if (const Status status = AwaitConnected(socket, deadline); !status.Ok()) return status;
  int code = 0;
  int size = sizeof code;
  ::getsockopt(socket, SOL_SOCKET, SO_ERROR, static_cast<char*>(static_cast<void*>(&code)), &size);
  if (code == 0) return {};
  ::WSASetLastError(code);
  return LastSocketFailure("connecting");
}

}  // namespace

// ---- One connection --------------------------------------------------------------------------

void StreamSocket::Close() {
  if (handle_ != kNoStream) ::closesocket(SocketOf(Release()));
}

Result<StreamSocket> StreamSocket::Connect(const StreamAddress& to, const Deadline& deadline) {
  const SOCKET made = NewSocket(to.family, SOCK_STREAM);
  if (made == INVALID_SOCKET) return LastSocketFailure("making a socket");
  StreamSocket socket(HandleOf(made));
  SetUp(made);
  if (::connect(made, SystemForm(to), static_cast<int>(to.length)) == 0) return socket;
  if (!WouldBlock()) return LastSocketFailure("connecting");
  if (const Status status = FinishConnect(made, deadline); !status.Ok()) return status;
  return socket;
}

Result<std::size_t> StreamSocket::SendSome(std::span<const std::byte> bytes) {
  const auto* const from = static_cast<const char*>(static_cast<const void*>(bytes.data()));
  const int sent = ::send(SocketOf(handle_), from, SizeOf(bytes.size()), 0);
  if (sent >= 0) return static_cast<std::size_t>(sent);
  if (WouldBlock()) return std::size_t{0};
  return LastSocketFailure("sending");
}

Result<std::size_t> StreamSocket::ReceiveSome(std::span<std::byte> into) {
  constexpr const char* kWhat = "receiving";
  auto* const to = static_cast<char*>(static_cast<void*>(into.data()));
  const int got = ::recv(SocketOf(handle_), to, SizeOf(into.size()), 0);
  if (got > 0) return static_cast<std::size_t>(got);
  if (got == 0) return Status{Error::Closed, 0, kWhat};
  if (WouldBlock()) return std::size_t{0};
  return LastSocketFailure(kWhat);
}

void StreamSocket::LimitBuffers(int bytes) {
  SetSocketOption(SocketOf(handle_), SOL_SOCKET, SO_SNDBUF, bytes);
  SetSocketOption(SocketOf(handle_), SOL_SOCKET, SO_RCVBUF, bytes);
}

// ---- Listening -------------------------------------------------------------------------------

// On this system the next program can use the port anyway. Address reuse would let another program
// take it while we listen.
void ClaimPort(std::intptr_t handle) {
  SetSocketOption(SocketOf(handle), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, 1);
}

Result<StreamListener> StreamListener::Open(const std::string& address, std::uint16_t port) {
  constexpr const char* kWhat = "listening";
  const auto at = NumericAddresses(address, port);
  if (!at.Ok()) return at.status();
  const StreamAddress& where = at->front();
  const SOCKET made = NewSocket(where.family, SOCK_STREAM);
  if (made == INVALID_SOCKET) return LastSocketFailure(kWhat);
  StreamListener listener(HandleOf(made));
  ClaimPort(HandleOf(made));
  const bool listens = ::bind(made, SystemForm(where), static_cast<int>(where.length)) == 0 &&
                       ::listen(made, kBacklog) == 0;
  if (!listens) return LastSocketFailure(kWhat);
  return listener;
}

StreamListener::~StreamListener() {
  if (handle_ != kNoStream) ::closesocket(SocketOf(handle_));
}

Result<StreamSocket> StreamListener::Accept() {
  constexpr const char* kWhat = "accepting a connection";
  for (;;) {
    const SOCKET taken = ::accept(SocketOf(handle_), nullptr, nullptr);
    if (taken != INVALID_SOCKET) {
      StreamSocket socket(HandleOf(taken));
      if (!PrepareSocket(taken)) return LastSocketFailure(kWhat);
      SetUp(taken);
      return socket;
    }
    if (WouldBlock()) return Status{Error::TimedOut, 0, kWhat};
    // A connection that ended while it waited is not a failure of the listener.
    if (::WSAGetLastError() != WSAECONNRESET) return LastSocketFailure(kWhat);
  }
}

std::uint16_t StreamListener::port() const {
  StreamAddress address;
  auto* const bytes = static_cast<sockaddr*>(static_cast<void*>(address.bytes.data()));
  int length = sizeof address.bytes;
  if (::getsockname(SocketOf(handle_), bytes, &length) != 0) return 0;
  // The port stands at the same place in both families.
  const auto* const any = static_cast<const sockaddr_in*>(static_cast<const void*>(bytes));
  return ::ntohs(any->sin_port);
}

// ---- Waiting ---------------------------------------------------------------------------------

// The system refuses to wait for an empty list, and fails on a socket that is none.
Result<std::size_t> PollSockets(std::span<PolledSocket> sockets, Milliseconds atMost,
                                const char* what) {
  std::array<WSAPOLLFD, kMostPolledSockets> watched;
  std::array<std::size_t, kMostPolledSockets> places;
  std::size_t count = 0;
  for (std::size_t i = 0; i < std::min(sockets.size(), watched.size()); ++i) {
    sockets[i].isReady = false;
    if (sockets[i].handle == kNoStream) continue;
    const short events = sockets[i].forRoom ? POLLOUT : POLLIN;
    watched[count] = {SocketOf(sockets[i].handle), events, 0};
    places[count++] = i;
  }
  const std::int64_t step = StepOf(atMost);
  if (count == 0) {
    SleepFor(Milliseconds(step));
    return std::size_t{0};
  }
  const int ready = ::WSAPoll(watched.data(), static_cast<ULONG>(count), static_cast<int>(step));
  if (ready < 0) return LastSocketFailure(what);
  for (std::size_t i = 0; i < count; ++i) sockets[places[i]].isReady = watched[i].revents != 0;
  return static_cast<std::size_t>(ready);
}

}  // namespace kinetrel

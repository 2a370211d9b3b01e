#include "platform/datagram_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix/os.h"

namespace kinetrel {
namespace {

int FdOf(std::intptr_t handle) { return static_cast<int>(handle); }

sockaddr_in OwnAddress(std::uint16_t port, Reach reach) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(reach == Reach::Network ? INADDR_ANY : INADDR_LOOPBACK);
  return address;
}

// The socket calls take the addresses of all families through this type.
const sockaddr* Generic(const sockaddr_in& address) {
  return static_cast<const sockaddr*>(static_cast<const void*>(&address));
}

bool SetOption(int fd, int name, int value) {
  return ::setsockopt(fd, SOL_SOCKET, name, &value, sizeof value) == 0;
}

}  // namespace

Result<DatagramSocket> DatagramSocket::Open(std::uint16_t port, Reach reach) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return SocketFailure(errno, "making a socket");
  DatagramSocket socket(fd);
  const sockaddr_in address = OwnAddress(port, reach);
  if (::bind(fd, Generic(address), sizeof address) != 0)
    return SocketFailure(errno, "taking the port");
  return socket;
}

DatagramSocket::~DatagramSocket() {
  if (handle_ != kNoHandle) ::close(FdOf(handle_));
}

bool DatagramSocket::SetReceiveBuffer(int bytes) {
  return SetOption(FdOf(handle_), SO_RCVBUF, bytes);
}

bool DatagramSocket::AllowBroadcast() { return SetOption(FdOf(handle_), SO_BROADCAST, 1); }

Result<std::size_t> DatagramSocket::Receive(std::span<std::byte> into) {
  constexpr const char* kWhat = "receiving";
  for (;;) {
    const ssize_t got = ::recv(FdOf(handle_), into.data(), into.size(), 0);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno == EAGAIN || errno == EWOULDBLOCK) return Status{Error::TimedOut, 0, kWhat};
    if (errno != EINTR) return SocketFailure(errno, kWhat);
  }
}

Status DatagramSocket::Send(const char* address, std::uint16_t port,
                            std::span<const std::byte> bytes) {
  constexpr const char* kWhat = "sending";
  sockaddr_in to = OwnAddress(port, Reach::Network);
  if (::inet_pton(AF_INET, address, &to.sin_addr) != 1) return {Error::Invalid, 0, kWhat};
  for (;;) {
    const ssize_t sent =
        ::sendto(FdOf(handle_), bytes.data(), bytes.size(), 0, Generic(to), sizeof to);
    if (sent >= 0) return {};
    if (errno != EINTR) return SocketFailure(errno, kWhat);
  }
}

std::uint16_t DatagramSocket::port() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ::getsockname(FdOf(handle_), static_cast<sockaddr*>(static_cast<void*>(&address)), &size);
  return ntohs(address.sin_port);
}

}  // namespace kinetrel

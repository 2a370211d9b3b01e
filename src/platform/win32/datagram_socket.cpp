#include "platform/datagram_socket.h"

#include <winsock2.h>

#include <ws2tcpip.h>

#include <algorithm>
#include <limits>

#include "platform/win32/os.h"

namespace kinetrel {
namespace {

// From the system's header; some headers lack it.
constexpr DWORD kTellRefusals = _WSAIOW(IOC_VENDOR, 12);

int SizeOf(std::size_t size) {
  return static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
}

char* Bytes(std::span<std::byte> bytes) {
  return static_cast<char*>(static_cast<void*>(bytes.data()));
}

const char* Bytes(std::span<const std::byte> bytes) {
  return static_cast<const char*>(static_cast<const void*>(bytes.data()));
}

sockaddr_in OwnAddress(std::uint16_t port, Reach reach) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = ::htons(port);
  address.sin_addr.s_addr = ::htonl(reach == Reach::Network ? INADDR_ANY : INADDR_LOOPBACK);
  return address;
}

// The socket calls take the addresses of all families through this type.
const sockaddr* Generic(const sockaddr_in& address) {
  return static_cast<const sockaddr*>(static_cast<const void*>(&address));
}

// Without this, a receiver that is gone makes the next receive fail.
void IgnoreRefusals(SOCKET socket) {
  BOOL tell = FALSE;
  DWORD unused = 0;
  ::WSAIoctl(socket, kTellRefusals, &tell, sizeof tell, nullptr, 0, &unused, nullptr, nullptr);
}

}  // namespace

Result<DatagramSocket> DatagramSocket::Open(std::uint16_t port, Reach reach) {
  const SOCKET made = NewSocket(AF_INET, SOCK_DGRAM);
  if (made == INVALID_SOCKET) return LastSocketFailure("making a socket");
  DatagramSocket socket(HandleOf(made));
  IgnoreRefusals(made);
  // Without this, another program could share the port and take our datagrams.
  SetSocketOption(made, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, 1);
  const sockaddr_in address = OwnAddress(port, reach);
  if (::bind(made, Generic(address), sizeof address) != 0) {
    return LastSocketFailure("taking the port");
  }
  return socket;
}

DatagramSocket::~DatagramSocket() {
  if (handle_ != kNoHandle) ::closesocket(SocketOf(handle_));
}

bool DatagramSocket::SetReceiveBuffer(int bytes) {
  return SetSocketOption(SocketOf(handle_), SOL_SOCKET, SO_RCVBUF, bytes);
}

bool DatagramSocket::AllowBroadcast() {
  return SetSocketOption(SocketOf(handle_), SOL_SOCKET, SO_BROADCAST, 1);
}

Result<std::size_t> DatagramSocket::Receive(std::span<std::byte> into) {
  constexpr const char* kWhat = "receiving";
  for (;;) {
    const int got = ::recv(SocketOf(handle_), Bytes(into), SizeOf(into.size()), 0);
    if (got >= 0) return static_cast<std::size_t>(got);
    const int code = ::WSAGetLastError();
    if (code == WSAEMSGSIZE) return into.size();
    if (code == WSAEWOULDBLOCK) return Status{Error::TimedOut, 0, kWhat};
    if (code != WSAECONNRESET && code != WSAENETRESET) return LastSocketFailure(kWhat);
  }
}

Status DatagramSocket::Send(const char* address, std::uint16_t port,
                            std::span<const std::byte> bytes) {
  constexpr const char* kWhat = "sending";
  sockaddr_in to = OwnAddress(port, Reach::Network);
  if (::inet_pton(AF_INET, address, &to.sin_addr) != 1) return {Error::Invalid, 0, kWhat};
  const int sent =
      ::sendto(SocketOf(handle_), Bytes(bytes), SizeOf(bytes.size()), 0, Generic(to), sizeof to);
  return sent >= 0 ? Status{} : LastSocketFailure(kWhat);
}

std::uint16_t DatagramSocket::port() const {
  sockaddr_in address{};
  int size = sizeof address;
  auto* const generic = static_cast<sockaddr*>(static_cast<void*>(&address));
  ::getsockname(SocketOf(handle_), generic, &size);
  return ::ntohs(address.sin_port);
}

}  // namespace kinetrel

#include "platform/datagram_burst.h"

#include <winsock2.h>

#include "platform/win32/os.h"

namespace kinetrel {

DatagramBurst::Outcome DatagramBurst::Send(std::intptr_t socket,
                                           std::span<const OutgoingDatagram> datagrams) {
  Outcome outcome;
  for (const OutgoingDatagram& each : datagrams) {
    const void* const bytes = each.bytes.data();
    const void* const to = each.to.data();
    if (::sendto(SocketOf(socket), static_cast<const char*>(bytes),
                 static_cast<int>(each.bytes.size()), 0, static_cast<const sockaddr*>(to),
                 static_cast<int>(each.to.size())) < 0) {
      outcome.osCode = ::WSAGetLastError();
      return outcome;
    }
    ++outcome.sent;
  }
  return outcome;
}

}  // namespace kinetrel

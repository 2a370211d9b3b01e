#include "platform/stream_socket.h"

#include <netdb.h>
#include <sys/socket.h>

#include <cstring>

namespace kinetrel {
namespace {

using Addresses = Result<std::vector<StreamAddress>>;

StreamAddress AddressOf(const addrinfo& row) {
  StreamAddress address;
  address.family = row.ai_family;
  address.length = row.ai_addrlen;
  std::memcpy(address.bytes.data(), row.ai_addr, row.ai_addrlen);
  return address;
}

// The resolver has codes of its own; they are not the system's.
Addresses AddressesOf(const std::string& host, std::uint16_t port, int flags) {
  addrinfo wanted{};
  wanted.ai_flags = flags | AI_NUMERICSERV;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  if (host.empty() || ::getaddrinfo(host.c_str(), service.c_str(), &wanted, &found) != 0) {
    return Status{Error::NotFound, 0, "finding a host"};
  }
  std::vector<StreamAddress> addresses;
  for (const addrinfo* row = found; row != nullptr; row = row->ai_next) {
    if (row->ai_addrlen <= sizeof StreamAddress::bytes) addresses.push_back(AddressOf(*row));
  }
  ::freeaddrinfo(found);
  if (addresses.empty()) return Status{Error::NotFound, 0, "finding a host"};
  return addresses;
}

}  // namespace

Addresses NumericAddresses(const std::string& host, std::uint16_t port) {
  return AddressesOf(host, port, AI_NUMERICHOST);
}

Addresses LookUpAddresses(const std::string& host, std::uint16_t port) {
  return AddressesOf(host, port, 0);
}

}  // namespace kinetrel

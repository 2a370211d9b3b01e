#include "platform/posix/host_lookup.h"

#include <netdb.h>
#include <sys/socket.h>

#include <cstring>
#include <utility>

#include "platform/named_objects.h"
#include "platform/thread.h"

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

// The resolver's codes are its own, not the system's.
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

Result<std::vector<StreamAddress>> NumericAddresses(const std::string& host, std::uint16_t port) {
  return AddressesOf(host, port, AI_NUMERICHOST);
}

// Shared by who asks and who looks up, as either may be gone first.
struct StreamConnector::LookUp {
  const std::string host;
  const std::uint16_t port;
  Event done;
  Addresses found = Status{Error::TimedOut, 0, "finding a host"};
};

Addresses StreamConnector::Resolve(const std::string& host, std::uint16_t port,
                                   const Deadline& deadline) {
  if (Addresses numeric = NumericAddresses(host, port); numeric.Ok()) return numeric;
  if (pending_ == nullptr || pending_->host != host || pending_->port != port) {
    pending_ = std::shared_ptr<LookUp>(new LookUp{.host = host, .port = port, .done = {}});
    const auto worker = Thread::Start([lookUp = pending_] {
      lookUp->found = AddressesOf(lookUp->host, lookUp->port, 0);
      lookUp->done.Set();
    });
    if (!worker.Ok()) {
      pending_ = nullptr;
      return worker.status();
    }
  }
  if (!pending_->done.Wait(deadline.Remaining())) {
    return Status{Error::TimedOut, 0, "finding a host"};
  }
  return std::exchange(pending_, nullptr)->found;
}

Result<StreamSocket> StreamConnector::Connect(const std::string& host, std::uint16_t port,
                                              const Deadline& deadline) {
  const Addresses addresses = Resolve(host, port, deadline);
  if (!addresses.Ok()) return addresses.status();
  Result<StreamSocket> outcome = Status{Error::NotFound, 0, "connecting"};
  auto left = static_cast<std::int64_t>(addresses->size());
  for (const StreamAddress& address : *addresses) {
    // Each has its share of the time: one that never answers must not use up that of the others.
    const Deadline share(deadline.Remaining() / left--);
    outcome = StreamSocket::Connect(address, share);
    if (outcome.Ok()) break;
  }
  return outcome;
}

}  // namespace kinetrel

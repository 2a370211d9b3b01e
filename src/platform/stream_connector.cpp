#include <utility>

#include "platform/named_objects.h"
#include "platform/stream_socket.h"
#include "platform/thread.h"

namespace kinetrel {
namespace {

using Addresses = Result<std::vector<StreamAddress>>;

}  // namespace

// Shared by the caller and the thread that looks up, because either may end first.
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
      lookUp->found = LookUpAddresses(lookUp->host, lookUp->port);
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
    // Each address gets its share of the time, so that one that never answers leaves time for the
    // next.
    const Deadline share(deadline.Remaining() / left--);
    outcome = StreamSocket::Connect(address, share);
    if (outcome.Ok()) break;
  }
  return outcome;
}

}  // namespace kinetrel

// Any bytes from a service, as the client reads them: messages one after the other, the
// acknowledgement of a bind, faults, and the replies of the three procedures.
#include <cstdlib>

#include "rpc/binding.h"
#include "rpc/pdu.h"
#include "rpc/track_procedures.h"

namespace {

using namespace kinetrel::rpc;

void ReadReplies(const Reassembly& message) {
  const ByteOrder order = message.first().order;
  const std::size_t size = message.stub().size();
  const bool mapping = ReadMappingReply(message.stub(), order).has_value();
  const bool attribute = ReadAttributeReply(message.stub(), order).has_value();
  const bool angles = ReadAnglesReply(message.stub(), order).has_value();
  if (mapping != (size >= 9 && size <= 12)) std::abort();
  if (attribute != (size >= 5 && size <= 8)) std::abort();
  if (angles && (size < 13 || size > 20)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto rest = std::as_bytes(std::span(data, size));
  Reassembly message;
  for (PduHeader header; ReadHeader(rest, header) == HeaderFault::None;) {
    if (header.length > rest.size()) break;
    const auto pdu = rest.first(header.length);
    rest = rest.subspan(header.length);
    static_cast<void>(ReadBindReply(header, pdu));
    static_cast<void>(ReadFault(pdu, header.order));
    const Reassembly::Outcome outcome = message.Add(header, pdu);
    if (message.stub().size() > kLongestStub) std::abort();
    if (outcome == Reassembly::Outcome::Refused) break;
    if (outcome == Reassembly::Outcome::More) continue;
    ReadReplies(message);
    message.Clear();
  }
  return 0;
}

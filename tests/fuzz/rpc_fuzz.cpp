// Any bytes from the other side of a connection: fuzz-rpc_reply is the client, fuzz-rpc_session the
// server. KINETREL_FUZZ selects one.
#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "rpc/binding.h"
#include "rpc/pdu.h"
#include "rpc/server_session.h"
#include "rpc/track_procedures.h"

namespace {

using namespace kinetrel::rpc;

// ---- Client --------------------------------------------------------------------------------

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

// Messages one after the other, the acknowledgement of a bind, faults, and the replies of the three
// procedures.
void Reply(std::span<const std::uint8_t> data) {
  auto rest = std::as_bytes(data);
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
}

// ---- Server --------------------------------------------------------------------------------

class Procedures final : public TrackProcedures {
 public:
  MappingReply GetMapping(const TrackKey& key) override { return {key[0] > 0, 1, key[1]}; }
  AttributeReply GetAttribute(const AttributeArguments& arguments) override {
    return {arguments.engine == 1, arguments.id};
  }
  bool GetFloats(const FloatsArguments& arguments, std::span<float> values) override {
    if (values.size() > kMostFloats) std::abort();
    std::fill(values.begin(), values.end(), 1.0F);
    return arguments.filter == -1;
  }
};

// What the server answers must itself be a message, and within bounds.
void Check(std::span<const std::byte> output) {
  PduHeader header;
  if (output.empty()) return;
  if (ReadHeader(output, header) != HeaderFault::None || header.length != output.size()) {
    std::abort();
  }
}

void Feed(ServerSession& session, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const auto room = session.InputRoom();
    if (room.empty()) return;
    const std::size_t count = std::min(room.size(), bytes.size());
    std::copy_n(bytes.begin(), count, room.begin());
    session.Received(count);
    bytes = bytes.subspan(count);
    do {
      session.Work();
      Check(session.Output());
      session.Sent(session.Output().size());
    } while (session.HasWork());
  }
}

// In any pieces. Two bytes pick the size of the pieces (0: all at once) and whether the client is
// bound first.
void Session(std::span<const std::uint8_t> data) {
  if (data.size() < 2) return;
  Procedures procedures;
  ServerSession session(procedures, 1, "5437");
  std::array<std::byte, 128> bind;
  if (data[1] % 2 == 0) Feed(session, WriteBind(bind, 1));
  auto rest = std::as_bytes(data).subspan(2);
  while (!rest.empty() && !session.IsOver()) {
    const std::size_t piece =
        data[0] == 0 ? rest.size() : std::min<std::size_t>(data[0], rest.size());
    Feed(session, rest.first(piece));
    rest = rest.subspan(piece);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr bool kIsClient = std::string_view(KINETREL_FUZZ) == "rpc_reply";
  (kIsClient ? Reply : Session)({data, size});
  return 0;
}

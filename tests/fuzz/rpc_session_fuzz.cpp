// Any bytes from a client, in any pieces, to the server's session: the reader of messages, the bind
// and the arguments of the three procedures.
//
// Two bytes pick the size of the pieces (0: all at once) and whether the client is bound first.
#include <algorithm>
#include <cstdlib>

#include "rpc/server_session.h"

namespace {

using namespace kinetrel::rpc;

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  Procedures procedures;
  ServerSession session(procedures, 1, "5437");
  std::array<std::byte, 128> bind;
  if (data[1] % 2 == 0) Feed(session, WriteBind(bind, 1));
  auto rest = std::as_bytes(std::span(data, size)).subspan(2);
  while (!rest.empty() && !session.IsOver()) {
    const std::size_t piece =
        data[0] == 0 ? rest.size() : std::min<std::size_t>(data[0], rest.size());
    Feed(session, rest.first(piece));
    rest = rest.subspan(piece);
  }
  return 0;
}

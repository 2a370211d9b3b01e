#include "rpc/binding.h"

#include <algorithm>

namespace kinetrel::rpc {
namespace {

constexpr std::uint16_t kProviderRejection = 2;
constexpr std::size_t kResultSize = 24;
// Every implementation must be able to receive this much; our replies are shorter.
constexpr std::uint16_t kLeastReceive = 1432;

struct ResultRow {
  std::uint16_t result;
  std::uint16_t reason;
};
// In the order of ContextResult.
constexpr ResultRow kResults[] = {
    {0, 0}, {kProviderRejection, 1}, {kProviderRejection, 2}, {kProviderRejection, 3}};

void WriteUuid(OctetWriter& out, const Uuid& uuid) {
  out.Word(uuid.timeLow);
  out.Half(uuid.timeMiddle);
  out.Half(uuid.timeHigh);
  for (const std::uint8_t byte : uuid.rest) out.Byte(byte);
}

Uuid ReadUuid(OctetReader& in) {
  Uuid uuid;
  uuid.timeLow = in.Word();
  uuid.timeMiddle = in.Half();
  uuid.timeHigh = in.Half();
  for (std::uint8_t& byte : uuid.rest) byte = in.Byte();
  return uuid;
}

void WriteSyntax(OctetWriter& out, const Syntax& syntax) {
  WriteUuid(out, syntax.uuid);
  out.Word(std::uint32_t{syntax.minor} << 16 | syntax.major);
}

// The version is one 32-bit number in the sender's byte order, with the major version in its low
// half.
Syntax ReadSyntax(OctetReader& in) {
  Syntax syntax;
  syntax.uuid = ReadUuid(in);
  const std::uint32_t version = in.Word();
  syntax.major = static_cast<std::uint16_t>(version & 0xFFFF);
  syntax.minor = static_cast<std::uint16_t>(version >> 16);
  return syntax;
}

bool Serves(const Syntax& offered) {
  return offered.uuid == kTrackInterface.uuid && offered.major == kTrackInterface.major &&
         offered.minor <= kTrackInterface.minor;
}

OfferedContext ReadContext(OctetReader& in) {
  OfferedContext context;
  context.id = in.Half();
  const int transfers = in.Byte();
  in.Skip(1);
  const bool served = Serves(ReadSyntax(in));
  bool readable = false;
  for (int i = 0; i < transfers && in.Ok(); ++i) readable |= ReadSyntax(in) == kTransferSyntax;
  context.result = !served    ? ContextResult::UnknownInterface
                   : readable ? ContextResult::Accepted
                              : ContextResult::UnknownTransfer;
  return context;
}

bool IsWhole(const PduHeader& header) { return (header.flags & kWholeMessage) == kWholeMessage; }

}  // namespace

// ---- The client's side -----------------------------------------------------------------------

std::span<const std::byte> WriteBind(std::span<std::byte> into, std::uint32_t callId) {
  OctetWriter out(into);
  WriteHeader(out, PduType::Bind, kWholeMessage, callId);
  out.Half(kLongestPdu);
  out.Half(kLongestPdu);
  out.Word(0);  // a new group of connections
  out.Word(1);  // one context
  out.Half(0);  // its id
  out.Half(1);  // one transfer syntax
  WriteSyntax(out, kTrackInterface);
  WriteSyntax(out, kTransferSyntax);
  return Finish(out);
}

BindOutcome ReadBindReply(const PduHeader& header, std::span<const std::byte> pdu) {
  constexpr std::size_t kNakSize = 18;
  if (header.type == PduType::BindNak) {
    return pdu.size() >= kNakSize ? BindOutcome::Refused : BindOutcome::Malformed;
  }
  if (header.type != PduType::BindAck || !IsWhole(header)) return BindOutcome::Malformed;
  OctetReader in(pdu, header.order);
  in.Skip(kHeaderSize + 8);
  const std::size_t endpointSize = in.Half();
  in.Skip(endpointSize);
  in.Skip((4 - (pdu.size() - in.rest().size()) % 4) % 4);
  const std::size_t results = in.Byte();
  in.Skip(3);
  const std::size_t answered = in.rest().size() / kResultSize;
  const std::uint16_t result = in.Half();
  in.Skip(2);
  const Syntax transfer = ReadSyntax(in);
  if (!in.Ok() || results == 0 || results > answered) return BindOutcome::Malformed;
  return result == 0 && transfer == kTransferSyntax ? BindOutcome::Accepted : BindOutcome::Refused;
}

// ---- The server's side -----------------------------------------------------------------------

std::optional<BindOffer> ReadBind(const PduHeader& header, std::span<const std::byte> pdu) {
  OctetReader in(pdu, header.order);
  in.Skip(kHeaderSize);
  BindOffer offer;
  offer.sends = in.Half();
  offer.receives = in.Half();
  offer.group = in.Word();
  offer.count = in.Byte();
  in.Skip(3);
  const bool sane = in.Ok() && IsWhole(header) && offer.receives >= kLeastReceive;
  if (!sane || offer.count == 0 || offer.count > kMostContexts) return std::nullopt;
  for (std::size_t i = 0; i < offer.count; ++i) offer.contexts[i] = ReadContext(in);
  return in.Ok() ? std::optional(offer) : std::nullopt;
}

std::span<const std::byte> WriteBindAck(std::span<std::byte> into, PduType type,
                                        std::uint32_t callId, const BindOffer& offer,
                                        std::string_view endpoint) {
  OctetWriter out(into);
  WriteHeader(out, type, kWholeMessage, callId);
  out.Half(std::min<std::uint16_t>(kLongestPdu, offer.receives));
  out.Half(std::min<std::uint16_t>(kLongestPdu, offer.sends));
  out.Word(offer.group);
  out.Half(static_cast<std::uint16_t>(endpoint.empty() ? 0 : endpoint.size() + 1));
  out.Bytes(std::as_bytes(std::span(endpoint)));
  if (!endpoint.empty()) out.Byte(0);
  out.PadTo(4);
  out.Word(static_cast<std::uint32_t>(offer.count));
  for (const OfferedContext& context : std::span(offer.contexts).first(offer.count)) {
    const ResultRow& row = kResults[static_cast<std::size_t>(context.result)];
    out.Half(row.result);
    out.Half(row.reason);
    WriteSyntax(out, context.result == ContextResult::Accepted ? kTransferSyntax : Syntax{});
  }
  return Finish(out);
}

std::span<const std::byte> WriteBindNak(std::span<std::byte> into, std::uint32_t callId,
                                        NakReason reason) {
  OctetWriter out(into);
  WriteHeader(out, PduType::BindNak, kWholeMessage, callId);
  out.Half(static_cast<std::uint16_t>(reason));
  out.Byte(1);  // one version: 5.0
  out.Byte(5);
  out.Byte(0);
  return Finish(out);
}

}  // namespace kinetrel::rpc

#include "rpc/pdu.h"

#include <algorithm>

namespace kinetrel::rpc {
namespace {

constexpr std::uint8_t kVersion = 5;
constexpr std::uint8_t kNewestMinor = 1;
constexpr std::uint8_t kLittleEndianAscii = 0x10;
constexpr std::size_t kLengthOffset = 8;
constexpr std::size_t kObjectSize = 16;

// Byte 4: order in the high nibble, character set (0 is ASCII) in the low one. Byte 5: float
// format, 0 is IEEE.
bool ReadRepresentation(std::uint8_t orderAndCharacters, std::uint8_t floats, ByteOrder& order) {
  order = orderAndCharacters == kLittleEndianAscii ? ByteOrder::Little : ByteOrder::Big;
  return (orderAndCharacters == kLittleEndianAscii || orderAndCharacters == 0) && floats == 0;
}

}  // namespace

HeaderFault ReadHeader(std::span<const std::byte> bytes, PduHeader& header) {
  if (bytes.size() < kHeaderSize) return HeaderFault::Length;
  OctetReader start(bytes, ByteOrder::Little);
  const std::uint8_t version = start.Byte();
  const std::uint8_t minor = start.Byte();
  header.type = static_cast<PduType>(start.Byte());
  header.flags = start.Byte();
  const std::uint8_t orderAndCharacters = start.Byte();
  const bool known = ReadRepresentation(orderAndCharacters, start.Byte(), header.order);
  OctetReader in(bytes.subspan(kLengthOffset), header.order);
  header.length = in.Half();
  const std::uint16_t authentication = in.Half();
  header.callId = in.Word();
  if (version != kVersion || minor > kNewestMinor) return HeaderFault::Version;
  if (!known) return HeaderFault::Representation;
  if (header.length < kHeaderSize || header.length > kLongestPdu) return HeaderFault::Length;
  return authentication == 0 ? HeaderFault::None : HeaderFault::Authentication;
}

void WriteHeader(OctetWriter& out, PduType type, std::uint8_t flags, std::uint32_t callId) {
  out.Byte(kVersion);
  out.Byte(0);
  out.Byte(static_cast<std::uint8_t>(type));
  out.Byte(flags);
  out.Word(kLittleEndianAscii);
  out.Word(0);  // both lengths
  out.Word(callId);
}

std::span<const std::byte> Finish(OctetWriter& out) {
  if (!out.Ok() || out.size() > kLongestPdu) return {};
  OctetWriter length(out.written().subspan(kLengthOffset));
  length.Half(static_cast<std::uint16_t>(out.size()));
  return out.written();
}

// ---- Messages --------------------------------------------------------------------------------

std::span<const std::byte> WriteRequest(std::span<std::byte> into, std::uint32_t callId,
                                        std::uint16_t procedure, std::span<const std::byte> stub) {
  OctetWriter out(into);
  WriteHeader(out, PduType::Request, kWholeMessage, callId);
  out.Word(static_cast<std::uint32_t>(stub.size()));
  out.Half(0);
  out.Half(procedure);
  out.Bytes(stub);
  return Finish(out);
}

std::span<const std::byte> WriteResponse(std::span<std::byte> into, std::uint32_t callId,
                                         std::uint16_t context, std::span<const std::byte> stub) {
  OctetWriter out(into);
  WriteHeader(out, PduType::Response, kWholeMessage, callId);
  out.Word(static_cast<std::uint32_t>(stub.size()));
  out.Half(context);
  out.Half(0);
  out.Bytes(stub);
  return Finish(out);
}

std::span<const std::byte> WriteFault(std::span<std::byte> into, std::uint32_t callId,
                                      std::uint16_t context, FaultStatus status) {
  OctetWriter out(into);
  WriteHeader(out, PduType::Fault, kWholeMessage | kDidNotExecute, callId);
  out.Word(0);
  out.Half(context);
  out.Half(0);
  out.Word(static_cast<std::uint32_t>(status));
  out.Word(0);
  return Finish(out);
}

std::optional<std::uint32_t> ReadFault(std::span<const std::byte> pdu, ByteOrder order) {
  OctetReader in(pdu, order);
  in.Skip(kStubOffset);
  const std::uint32_t status = in.Word();
  return in.Ok() ? std::optional(status) : std::nullopt;
}

// ---- Fragments -------------------------------------------------------------------------------

void Reassembly::Clear() {
  fragments_ = 0;
  size_ = 0;
}

bool Reassembly::Continues(const PduHeader& header) const {
  const bool first = (header.flags & kFirstFragment) != 0;
  if (fragments_ == 0) return first;
  return !first && fragments_ < kMostFragments && header.type == first_.type &&
         header.order == first_.order && header.callId == first_.callId;
}

Reassembly::Outcome Reassembly::Add(const PduHeader& header, std::span<const std::byte> pdu) {
  OctetReader in(pdu, header.order);
  in.Skip(kHeaderSize + 4);  // the size hint adds nothing to the length
  const std::uint16_t context = in.Half();
  const std::uint16_t procedure = in.Half();
  if (header.type == PduType::Request && (header.flags & kHasObject) != 0) in.Skip(kObjectSize);
  if (!in.Ok() || !Continues(header)) return Outcome::Refused;
  if (fragments_++ == 0) {
    first_ = header;
    context_ = context;
    procedure_ = procedure;
  }
  if (in.rest().size() > kLongestStub - size_) return Outcome::Refused;
  std::copy(in.rest().begin(), in.rest().end(), stub_.begin() + static_cast<std::ptrdiff_t>(size_));
  size_ += in.rest().size();
  return (header.flags & kLastFragment) != 0 ? Outcome::Whole : Outcome::More;
}

}  // namespace kinetrel::rpc

#include "rpc/track_procedures.h"

namespace kinetrel::rpc {
namespace {

// True when a stub of `size` bytes holds `values` 4-byte values and a Boolean of 1 to 4 bytes.
bool HasSizeFor(std::size_t size, std::size_t values) {
  return size > 4 * values && size <= 4 * values + 4;
}

// A Boolean of 1 byte may be followed by padding. In a big-endian Boolean of 4 bytes only the last
// byte is nonzero.
bool ReadBoolean(OctetReader& in, ByteOrder order) {
  if (order == ByteOrder::Big && in.rest().size() == 4) return in.Word() != 0;
  return in.Byte() != 0;
}

void WriteBoolean(OctetWriter& out, bool value) { out.Word(value ? 1 : 0); }

TrackKey TakeKey(OctetReader& in) {
  TrackKey key;
  for (std::int32_t& number : key) number = in.Integer();
  return key;
}

template <typename Value>
std::optional<Value> IfWhole(const OctetReader& in, const Value& value) {
  return in.Ok() ? std::optional(value) : std::nullopt;
}

}  // namespace

// ---- The client's side -----------------------------------------------------------------------

void WriteKey(OctetWriter& out, const TrackKey& key) {
  for (const std::int32_t number : key) out.Integer(number);
}

void WriteArguments(OctetWriter& out, const AttributeArguments& arguments) {
  out.Integer(arguments.engine);
  out.Integer(arguments.id);
}

void WriteArguments(OctetWriter& out, const FloatsArguments& arguments) {
  WriteKey(out, arguments.key);
  out.Integer(arguments.filter);
  out.Integer(arguments.id);
  out.Integer(arguments.count);
}

std::optional<MappingReply> ReadMappingReply(std::span<const std::byte> stub, ByteOrder order) {
  if (!HasSizeFor(stub.size(), 2)) return std::nullopt;
  OctetReader in(stub, order);
  MappingReply reply;
  reply.engine = in.Integer();
  reply.sensor = in.Integer();
  reply.found = ReadBoolean(in, order);
  return reply;
}

std::optional<AttributeReply> ReadAttributeReply(std::span<const std::byte> stub, ByteOrder order) {
  if (!HasSizeFor(stub.size(), 1)) return std::nullopt;
  OctetReader in(stub, order);
  AttributeReply reply;
  reply.value = in.Integer();
  reply.known = ReadBoolean(in, order);
  return reply;
}

std::optional<AnglesReply> ReadAnglesReply(std::span<const std::byte> stub, ByteOrder order) {
  OctetReader in(stub, order);
  if (HasSizeFor(stub.size(), 4)) {
    if (in.Word() != 3) return std::nullopt;
  } else if (!HasSizeFor(stub.size(), 3)) {
    return std::nullopt;
  }
  AnglesReply reply;
  for (float& value : reply.values) value = in.Float();
  reply.known = ReadBoolean(in, order);
  return reply;
}

// ---- The server's side -----------------------------------------------------------------------

std::optional<TrackKey> ReadKey(std::span<const std::byte> stub, ByteOrder order) {
  OctetReader in(stub, order);
  const TrackKey key = TakeKey(in);
  return IfWhole(in, key);
}

std::optional<AttributeArguments> ReadAttributeArguments(std::span<const std::byte> stub,
                                                         ByteOrder order) {
  OctetReader in(stub, order);
  AttributeArguments arguments;
  arguments.engine = in.Integer();
  arguments.id = in.Integer();
  return IfWhole(in, arguments);
}

std::optional<FloatsArguments> ReadFloatsArguments(std::span<const std::byte> stub,
                                                   ByteOrder order) {
  OctetReader in(stub, order);
  FloatsArguments arguments;
  arguments.key = TakeKey(in);
  arguments.filter = in.Integer();
  arguments.id = in.Integer();
  arguments.count = in.Integer();
  return IfWhole(in, arguments);
}

void WriteReply(OctetWriter& out, const MappingReply& reply) {
  out.Integer(reply.engine);
  out.Integer(reply.sensor);
  WriteBoolean(out, reply.found);
}

void WriteReply(OctetWriter& out, const AttributeReply& reply) {
  out.Integer(reply.value);
  WriteBoolean(out, reply.known);
}

void WriteFloatsReply(OctetWriter& out, bool known, std::span<const float> values) {
  out.Word(static_cast<std::uint32_t>(values.size()));
  for (const float value : values) out.Float(value);
  WriteBoolean(out, known);
}

}  // namespace kinetrel::rpc

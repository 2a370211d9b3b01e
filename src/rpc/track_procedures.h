// The three procedures of a tracking service, and the encoding of their arguments and replies.
//
//   20  in key            out engine, sensor   result: the service has the mapping
//   14  in engine, id     out value            a whole-number attribute of the engine
//   37  in key, filter,   out values           numbers of a mapping (filter -1) or its filter
//          id, count
//
// All values have 4 bytes and follow one another; a reply ends with the procedure's Boolean result.
// Services differ in its size (1 byte or 4) and in whether a count precedes an array; the length of
// the reply shows which form it has.
//
// Memory   nothing here allocates.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "rpc/octets.h"

namespace kinetrel::rpc {

enum class Procedure : std::uint16_t { GetAttribute = 14, GetMapping = 20, GetFloats = 37 };

inline constexpr std::uint16_t kTrackPort = 5437;
inline constexpr std::size_t kMostFloats = 64;  // in one call
inline constexpr std::size_t kLongestArguments = 24;
inline constexpr std::size_t kLongestReply = 4 + kMostFloats * 4 + 4;

using TrackKey = std::array<std::int32_t, 3>;  // device, bin, pose slot

struct AttributeArguments {
  std::int32_t engine = 0;
  std::int32_t id = 0;
};

struct FloatsArguments {
  TrackKey key{};
  std::int32_t filter = -1;
  std::int32_t id = 0;
  std::int32_t count = 0;
};

struct MappingReply {
  bool found = false;
  std::int32_t engine = 0;
  std::int32_t sensor = 0;
};

struct AttributeReply {
  bool known = false;
  std::int32_t value = 0;
};

struct AnglesReply {
  bool known = false;
  std::array<float, 3> values{};  // unchecked
};

// ---- The client's side -----------------------------------------------------------------------
// The readers return nothing for a stub that has none of the forms.

void WriteKey(OctetWriter& out, const TrackKey& key);
void WriteArguments(OctetWriter& out, const AttributeArguments& arguments);
void WriteArguments(OctetWriter& out, const FloatsArguments& arguments);

std::optional<MappingReply> ReadMappingReply(std::span<const std::byte> stub, ByteOrder order);
std::optional<AttributeReply> ReadAttributeReply(std::span<const std::byte> stub, ByteOrder order);
std::optional<AnglesReply> ReadAnglesReply(std::span<const std::byte> stub, ByteOrder order);

// ---- The server's side -----------------------------------------------------------------------
// The readers return nothing for a stub that is too short, and ignore extra bytes.

std::optional<TrackKey> ReadKey(std::span<const std::byte> stub, ByteOrder order);
std::optional<AttributeArguments> ReadAttributeArguments(std::span<const std::byte> stub,
                                                         ByteOrder order);
std::optional<FloatsArguments> ReadFloatsArguments(std::span<const std::byte> stub,
                                                   ByteOrder order);

void WriteReply(OctetWriter& out, const MappingReply& reply);
void WriteReply(OctetWriter& out, const AttributeReply& reply);
void WriteFloatsReply(OctetWriter& out, bool known, std::span<const float> values);

}  // namespace kinetrel::rpc

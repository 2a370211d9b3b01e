// The messages that open a connection: the client offers interfaces, the server answers each one.
//
// Memory   nothing here allocates.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "rpc/pdu.h"

namespace kinetrel::rpc {

struct Uuid {
  std::uint32_t timeLow = 0;
  std::uint16_t timeMiddle = 0;
  std::uint16_t timeHigh = 0;
  std::array<std::uint8_t, 8> rest{};

  bool operator==(const Uuid&) const = default;
};

// An interface, or a way to encode values (a transfer syntax).
struct Syntax {
  Uuid uuid;
  std::uint16_t major = 0;
  std::uint16_t minor = 0;

  bool operator==(const Syntax&) const = default;
};

// The interface of a tracking service.
inline constexpr Syntax kTrackInterface = {
    {0xFA527EF1, 0xB1AC, 0x48EB, {0xB7, 0xE3, 0xD2, 0x89, 0x37, 0x84, 0xFA, 0x6F}}, 1, 1};
// NDR, the encoding of all three procedures.
inline constexpr Syntax kTransferSyntax = {
    {0x8A885D04, 0x1CEB, 0x11C9, {0x9F, 0xE8, 0x08, 0x00, 0x2B, 0x10, 0x48, 0x60}}, 2, 0};

inline constexpr std::size_t kMostContexts = 8;

// ---- The client's side -----------------------------------------------------------------------

// Offers the tracking interface, on context 0.
std::span<const std::byte> WriteBind(std::span<std::byte> into, std::uint32_t callId);

enum class BindOutcome { Accepted, Refused, Malformed };

// Reads the server's answer to WriteBind's offer: an acknowledgement or a refusal.
BindOutcome ReadBindReply(const PduHeader& header, std::span<const std::byte> pdu);

// ---- The server's side -----------------------------------------------------------------------

// The answer to one offered context.
enum class ContextResult { Accepted, UnknownInterface, UnknownTransfer, TooMany };

struct OfferedContext {
  std::uint16_t id = 0;
  ContextResult result = ContextResult::UnknownTransfer;
};

struct BindOffer {
  std::uint16_t sends = 0;     // the longest message that the client sends
  std::uint16_t receives = 0;  // the longest message that it accepts
  std::uint32_t group = 0;     // 0: a new one
  std::size_t count = 0;
  std::array<OfferedContext, kMostContexts> contexts{};
};

// Reads a bind or an alter-context and decides the answer to each context. Returns nothing when it
// is malformed or offers more than kMostContexts.
std::optional<BindOffer> ReadBind(const PduHeader& header, std::span<const std::byte> pdu);

// Answers a bind (PduType::BindAck) or an alter-context (AlterContextResponse).
//
// endpoint  the server's port as text, empty for an alter-context.
std::span<const std::byte> WriteBindAck(std::span<std::byte> into, PduType type,
                                        std::uint32_t callId, const BindOffer& offer,
                                        std::string_view endpoint);

enum class NakReason : std::uint16_t { LocalLimit = 2, Version = 4, Authentication = 8 };
std::span<const std::byte> WriteBindNak(std::span<std::byte> into, std::uint32_t callId,
                                        NakReason reason);

}  // namespace kinetrel::rpc

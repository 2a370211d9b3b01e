// The messages of connection-oriented DCE/RPC: their common header, requests, responses and faults,
// and the reassembly of fragments.
//
//   offset  size  field
//   0       1     version, 5
//   1       1     minor version, 0 or 1
//   2       1     type
//   3       1     flags
//   4       4     data representation: byte order and character set, float format, 0, 0
//   8       2     length of the whole message
//   10      2     length of its authentication, 0
//   12      4     call id, the same in a request and its reply
//   16            body; the stub of a request or reply starts at 24
//
// The bytes from offset 8 on are in the sender's byte order.
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

inline constexpr std::size_t kHeaderSize = 16;
inline constexpr std::size_t kStubOffset = 24;
inline constexpr std::size_t kLongestPdu = 5840;   // the most that we receive or send
inline constexpr std::size_t kLongestStub = 4096;  // of all fragments together
inline constexpr int kMostFragments = 64;

enum class PduType : std::uint8_t {
  Request = 0,
  Response = 2,
  Fault = 3,
  Bind = 11,
  BindAck = 12,
  BindNak = 13,
  AlterContext = 14,
  AlterContextResponse = 15,
  Auth3 = 16,
  Cancel = 18,
  Orphaned = 19,
};

// Bits of the flags byte.
inline constexpr std::uint8_t kFirstFragment = 0x01;
inline constexpr std::uint8_t kLastFragment = 0x02;
inline constexpr std::uint8_t kWholeMessage = kFirstFragment | kLastFragment;
inline constexpr std::uint8_t kDidNotExecute = 0x20;
inline constexpr std::uint8_t kNoReplyWanted = 0x40;
inline constexpr std::uint8_t kHasObject = 0x80;

struct PduHeader {
  PduType type = PduType::Request;
  std::uint8_t flags = 0;
  ByteOrder order = ByteOrder::Little;
  std::uint16_t length = 0;  // of the whole message
  std::uint32_t callId = 0;
};

enum class HeaderFault { None, Version, Representation, Length, Authentication };

// Reads the 16 bytes of a header. The fields are filled in even when it returns a fault. The fault
// Length means a length below 16 or above kLongestPdu; it is found before the rest has arrived.
HeaderFault ReadHeader(std::span<const std::byte> bytes, PduHeader& header);

// Writes a header with length 0; Finish corrects it.
void WriteHeader(OctetWriter& out, PduType type, std::uint8_t flags, std::uint32_t callId);

// Sets the length of the message in `out` and returns the message; empty when it did not fit.
std::span<const std::byte> Finish(OctetWriter& out);

// ---- Messages ------------------------------------------------------------------------------
// Each writes a whole message into `into` and returns it; empty when it does not fit.

std::span<const std::byte> WriteRequest(std::span<std::byte> into, std::uint32_t callId,
                                        std::uint16_t procedure, std::span<const std::byte> stub);
std::span<const std::byte> WriteResponse(std::span<std::byte> into, std::uint32_t callId,
                                         std::uint16_t context, std::span<const std::byte> stub);

// Why a call failed: the status of a fault.
enum class FaultStatus : std::uint32_t {
  BadStub = 0x000006F7,
  InvalidBound = 0x1C000007,
  NoSuchProcedure = 0x1C010002,
  UnknownInterface = 0x1C010003,
};
std::span<const std::byte> WriteFault(std::span<std::byte> into, std::uint32_t callId,
                                      std::uint16_t context, FaultStatus status);

// The status of a fault message; nothing when the message is too short.
std::optional<std::uint32_t> ReadFault(std::span<const std::byte> pdu, ByteOrder order);

// ---- Fragments -----------------------------------------------------------------------------

// Collects the stub of one message from its fragments.
class Reassembly {
 public:
  enum class Outcome { More, Whole, Refused };

  // Adds the next fragment of a request or response. Refused: it does not continue the fragments
  // before it, or is too long; the connection must be closed.
  Outcome Add(const PduHeader& header, std::span<const std::byte> pdu);
  void Clear();  // before the next message

  bool InProgress() const { return fragments_ > 0; }
  std::span<const std::byte> stub() const { return std::span(stub_).first(size_); }
  const PduHeader& first() const { return first_; }
  std::uint16_t context() const { return context_; }
  std::uint16_t procedure() const { return procedure_; }  // of a request

 private:
  bool Continues(const PduHeader& header) const;

  PduHeader first_;
  std::uint16_t context_ = 0;
  std::uint16_t procedure_ = 0;
  int fragments_ = 0;
  std::size_t size_ = 0;
  std::array<std::byte, kLongestStub> stub_;
};

}  // namespace kinetrel::rpc

// Every message byte for byte, and the refusal of invalid messages.
#include <gtest/gtest.h>

#include "rpc/binding.h"
#include "rpc/pdu.h"
#include "rpc/track_procedures.h"
#include "tests/rpc/hex.h"

namespace kinetrel::rpc {
namespace {

using test::Hex;
using test::Octets;
using test::ToHex;
using test::With;
using namespace test::wire;

std::span<const std::byte> StubOf(const Octets& pdu) { return std::span(pdu).subspan(kStubOffset); }

std::string Request(std::uint32_t id, Procedure procedure, const auto& write) {
  std::array<std::byte, 64> stub, pdu;
  OctetWriter out(stub);
  write(out);
  return ToHex(WriteRequest(pdu, id, static_cast<std::uint16_t>(procedure), out.written()));
}

TEST(Messages, AreEncodedByteForByte) {
  std::array<std::byte, 256> into;
  EXPECT_EQ(ToHex(WriteBind(into, 1)), ToHex(kBind));
  BindOffer offer;
  offer.sends = offer.receives = 5840;
  offer.group = 1;
  offer.count = 1;
  offer.contexts[0] = {0, ContextResult::Accepted};
  EXPECT_EQ(ToHex(WriteBindAck(into, PduType::BindAck, 1, offer, "5437")), ToHex(kBindAck));
  offer.contexts[0].result = ContextResult::UnknownInterface;
  EXPECT_EQ(ToHex(WriteBindAck(into, PduType::BindAck, 1, offer, "5437")), ToHex(kBindRefused));
  EXPECT_EQ(ToHex(WriteBindNak(into, 1, NakReason::Version)), ToHex(kBindNak));
  EXPECT_EQ(ToHex(WriteFault(into, 5, 0, FaultStatus::NoSuchProcedure)), ToHex(kFault));
  EXPECT_EQ(Request(2, Procedure::GetMapping,
                    [](OctetWriter& out) {
                      WriteKey(out, {11, 22, 33});
                    }),
            ToHex(kRequest20));
  EXPECT_EQ(Request(3, Procedure::GetAttribute,
                    [](OctetWriter& out) {
                      WriteArguments(out, AttributeArguments{111, 5});
                    }),
            ToHex(kRequest14));
  EXPECT_EQ(Request(4, Procedure::GetFloats,
                    [](OctetWriter& out) {
                      WriteArguments(out, FloatsArguments{{11, 22, 33}, -1, 2, 3});
                    }),
            ToHex(kRequest37));
}

TEST(Messages, RepliesAreReadInEveryForm) {
  for (const Octets& pdu : {kResponse20, kResponse20Wide}) {
    const auto reply = ReadMappingReply(StubOf(pdu), ByteOrder::Little);
    ASSERT_TRUE(reply.has_value());
    EXPECT_TRUE(reply->found && reply->engine == 111 && reply->sensor == 222);
  }
  EXPECT_EQ(ReadAttributeReply(StubOf(kResponse14), ByteOrder::Little)->value, 1115);
  for (const Octets& pdu : {kResponse37, kResponse37Fixed}) {
    const auto reply = ReadAnglesReply(StubOf(pdu), ByteOrder::Little);
    ASSERT_TRUE(reply.has_value() && reply->known);
    EXPECT_EQ(reply->values, (std::array{11.25F, -0.5F, 2.75F}));
  }
  const auto big = ReadMappingReply(Hex("00 00 00 6f 00 00 00 de 00 00 00 01"), ByteOrder::Big);
  EXPECT_TRUE(big->found && big->engine == 111 && big->sensor == 222);
  EXPECT_EQ(ReadFault(kFault, ByteOrder::Little), 0x1C010002U);
}

TEST(Messages, RepliesOfOtherLengthsAreRefused) {
  for (std::size_t size = 0; size < 40; ++size) {
    Octets stub(size);
    EXPECT_EQ(ReadMappingReply(stub, ByteOrder::Little).has_value(), size >= 9 && size <= 12);
    EXPECT_EQ(ReadAttributeReply(stub, ByteOrder::Little).has_value(), size >= 5 && size <= 8);
    EXPECT_EQ(ReadAnglesReply(stub, ByteOrder::Little).has_value(), size >= 13 && size <= 16);
    if (size > 0) stub[0] = std::byte{3};
    EXPECT_EQ(ReadAnglesReply(stub, ByteOrder::Little).has_value(), size >= 13 && size <= 20);
  }
  // The count of an array is not trusted.
  EXPECT_FALSE(ReadAnglesReply(With(Octets(17), 3, 0x10), ByteOrder::Little).has_value());
}

struct HeaderCase {
  const char* what;
  std::size_t at;
  int value;
  HeaderFault fault;
};

TEST(Messages, HeadersAreCheckedBeforeTheRestArrives) {
  const HeaderCase cases[] = {
      {"as it should be", 0, 5, HeaderFault::None},
      {"minor version 1", 1, 1, HeaderFault::None},
      {"minor version 2", 1, 2, HeaderFault::Version},
      {"version 4", 0, 4, HeaderFault::Version},
      {"HTTP", 0, 'H', HeaderFault::Version},
      {"EBCDIC", 4, 0x11, HeaderFault::Representation},
      {"VAX floats", 5, 1, HeaderFault::Representation},
      {"length 0", 8, 0, HeaderFault::Length},
      {"length 12", 8, 12, HeaderFault::Length},
      {"length 65365", 9, 255, HeaderFault::Length},
      {"authentication", 10, 1, HeaderFault::Authentication},
      {"big-endian, so of another length", 4, 0, HeaderFault::Length},
  };
  for (const HeaderCase& row : cases) {
    PduHeader header;
    EXPECT_EQ(ReadHeader(With(kResponse20, row.at, row.value), header), row.fault) << row.what;
  }
}

BindOutcome ReadReply(const Octets& pdu) {
  PduHeader header;
  if (ReadHeader(pdu, header) != HeaderFault::None) return BindOutcome::Malformed;
  return ReadBindReply(header, pdu);
}

TEST(Messages, BindRepliesAreReadWithinTheirBounds) {
  EXPECT_EQ(ReadReply(kBindAck), BindOutcome::Accepted);
  EXPECT_EQ(ReadReply(kBindRefused), BindOutcome::Refused);
  EXPECT_EQ(ReadReply(kBindNak), BindOutcome::Refused);
  EXPECT_EQ(ReadReply(With(kBindAck, 24, 0xFE)), BindOutcome::Malformed);  // endpoint's length
  EXPECT_EQ(ReadReply(With(With(kBindAck, 24, 0xFE), 25, 0xFF)), BindOutcome::Malformed);
  EXPECT_EQ(ReadReply(With(kBindAck, 32, 200)), BindOutcome::Malformed);  // results
  EXPECT_EQ(ReadReply(With(kBindAck, 32, 0)), BindOutcome::Malformed);
  EXPECT_EQ(ReadReply(With(kBindAck, 40, 0x33)), BindOutcome::Refused);  // transfer syntax
  EXPECT_EQ(ReadReply(With(kBindAck, 2, 2)), BindOutcome::Malformed);    // a response
  for (std::size_t size = kHeaderSize; size < kBindAck.size(); ++size) {
    const Octets cut(kBindAck.begin(), kBindAck.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(ReadReply(cut), BindOutcome::Malformed) << size;
  }
}

// ---- Fragments -------------------------------------------------------------------------------

using Outcome = Reassembly::Outcome;

Outcome Add(Reassembly& message, const Octets& pdu) {
  PduHeader header;
  EXPECT_EQ(ReadHeader(pdu, header), HeaderFault::None);
  return message.Add(header, pdu);
}

// A fragment of a response, `size` stub bytes long.
Octets Fragment(int flags, std::size_t size) {
  Octets pdu = With(kResponse20, 3, flags);
  pdu.resize(kStubOffset + size, std::byte{7});
  return With(With(pdu, 8, static_cast<int>(pdu.size() & 255)), 9,
              static_cast<int>(pdu.size() >> 8));
}

TEST(Fragments, AreJoinedInOrder) {
  Reassembly message;
  EXPECT_EQ(Add(message, Fragment(kFirstFragment, 4)), Outcome::More);
  EXPECT_EQ(Add(message, Fragment(0, 0)), Outcome::More);
  EXPECT_EQ(Add(message, Fragment(kLastFragment, 5)), Outcome::Whole);
  EXPECT_EQ(ReadMappingReply(message.stub(), ByteOrder::Little)->engine, 111);
}

TEST(Fragments, AreLimitedInNumber) {
  Reassembly zeros, data;
  EXPECT_EQ(Add(zeros, Fragment(kFirstFragment, 0)), Outcome::More);
  int taken = 1;
  while (Add(zeros, Fragment(0, 0)) == Outcome::More) ASSERT_LE(++taken, kMostFragments);
  EXPECT_EQ(taken, kMostFragments);
  EXPECT_EQ(Add(data, Fragment(kFirstFragment, 4096)), Outcome::More);
  EXPECT_EQ(Add(data, Fragment(0, 1)), Outcome::Refused);
}

TEST(Fragments, OfDifferentMessagesAreRefused) {
  const Octets next = Fragment(0, 4);
  EXPECT_EQ(Add(*std::make_unique<Reassembly>(), next), Outcome::Refused);  // no first fragment
  Octets bigEndian = With(With(With(next, 4, 0), 8, 0), 9, static_cast<int>(next.size()));
  bigEndian = With(With(bigEndian, 12, 0), 15, 2);
  for (const Octets& stranger :
       {Fragment(kFirstFragment, 4), With(next, 12, 9), With(next, 2, 3), bigEndian}) {
    Reassembly message;
    ASSERT_EQ(Add(message, Fragment(kFirstFragment, 4)), Outcome::More);
    EXPECT_EQ(Add(message, stranger), Outcome::Refused) << ToHex(stranger);
  }
}

}  // namespace
}  // namespace kinetrel::rpc

// Every message byte for byte, and the refusal of invalid messages.
#include <gtest/gtest.h>

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

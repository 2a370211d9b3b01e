// The client against services that answer correctly, wrongly, late and never.
#include "rpc/track_client.h"

#include <gtest/gtest.h>

#include "rpc/pdu.h"
#include "rpc/track_procedures.h"
#include "tests/rpc/scripted_service.h"
#include "tests/support/allocation_counter.h"

namespace kinetrel::rpc {
namespace {

using test::Hex;
using test::Octets;
using test::ScriptedService;
using test::ServiceLine;
using test::ToHex;
using test::With;
using namespace test::wire;
using std::chrono::steady_clock;

constexpr TrackKey kKey = {11, 22, 33};
constexpr auto kStep = std::chrono::milliseconds(1000);
// The extra time for a sanitizer build on a busy machine.
constexpr auto kSlack = std::chrono::milliseconds(1500);

// The result of GetMapping for the service; `engine` starts as 7.
struct Outcome {
  CallResult bind = CallResult::NotOpen;
  CallResult call = CallResult::NotOpen;
  std::int32_t engine = 7;
  std::int32_t sensor = 7;
  steady_clock::duration time{};
};

Outcome Ask(const ScriptedService& service) {
  RpcTrackClient client(service.port());
  Outcome outcome;
  const auto start = steady_clock::now();
  outcome.bind = client.Bind("127.0.0.1");
  outcome.call = client.GetMapping(kKey, outcome.engine, outcome.sensor);
  outcome.time = steady_clock::now() - start;
  return outcome;
}

TEST(Client, TalksByteForByte) {
  std::string heard;
  ScriptedService service([&](ServiceLine& line) {
    const std::pair<std::size_t, Octets> turns[] = {
        {72, kBindAck}, {36, kResponse20}, {32, kResponse14}, {48, kResponse37}};
    for (const auto& [size, answer] : turns) {
      if (!line.Take(size)) return;
      heard += ToHex(line.taken) + '\n';
      line.Send(answer);
    }
    line.Hold();
  });
  RpcTrackClient client(service.port());
  std::int32_t engine = 0, sensor = 0, units = 0;
  std::array<float, 3> angles{};
  EXPECT_EQ(client.GetMapping(kKey, engine, sensor), CallResult::NotOpen);
  EXPECT_EQ(client.Unbind(), CallResult::NotOpen);
  ASSERT_EQ(client.Bind("127.0.0.1"), CallResult::Success);
  test::CountAllocations(true);
  EXPECT_EQ(client.GetMapping(kKey, engine, sensor), CallResult::Success);
  EXPECT_EQ(client.GetAttribute({engine, 5}, units), CallResult::Success);
  EXPECT_EQ(client.GetAngles({kKey, -1, 2, 3}, angles), CallResult::Success);
  test::CountAllocations(false);
  EXPECT_EQ(test::CountedAllocations(), 0);
  EXPECT_EQ(engine, 111);
  EXPECT_EQ(sensor, 222);
  EXPECT_EQ(units, 1115);
  EXPECT_EQ(angles, (std::array{11.25F, -0.5F, 2.75F}));
  EXPECT_EQ(client.Unbind(), CallResult::Success);
  EXPECT_EQ(heard, ToHex(kBind) + '\n' + ToHex(kRequest20) + '\n' + ToHex(kRequest14) + '\n' +
                       ToHex(kRequest37) + '\n');
}

// ---- Replies in all their forms --------------------------------------------------------------

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

// ---- Replies of a service --------------------------------------------------------------------

struct BindStory {
  const char* name;
  Octets answer;
};

class Bind : public testing::TestWithParam<BindStory> {};

TEST_P(Bind, IsRefusedAtOnce) {
  ScriptedService service([](ServiceLine& line) {
    if (line.Take(72) && line.Send(GetParam().answer)) line.Hold();
  });
  const Outcome outcome = Ask(service);
  EXPECT_EQ(outcome.bind, CallResult::BindingError);
  EXPECT_EQ(outcome.call, CallResult::NotOpen);
  EXPECT_LT(outcome.time, kStep);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, Bind,
    testing::Values(BindStory{"InterfaceRefused", kBindRefused}, BindStory{"Nak", kBindNak},
                    BindStory{"Fault", With(kFault, 12, 1)},
                    BindStory{"HugeEndpoint", With(With(kBindAck, 24, 0xFE), 25, 0xFF)},
                    BindStory{"TwoHundredResults", With(kBindAck, 32, 200)},
                    BindStory{"NoResults", With(kBindAck, 32, 0)},
                    BindStory{"OtherTransferSyntax", With(kBindAck, 40, 0x33)},
                    BindStory{"WrongCallId", With(kBindAck, 12, 9)},
                    BindStory{"LengthTwelve", With(kBindAck, 8, 12)},
                    BindStory{"WebServer", Hex("48 54 54 50 2f 31 2e 31 20 34 30 30 20 42 61 64")}),
    [](const auto& story) { return std::string(story.param.name); });

struct ReplyStory {
  const char* name;
  Octets answer;
  CallResult result = CallResult::NetworkError;
};

class Reply : public testing::TestWithParam<ReplyStory> {};

TEST_P(Reply, IsCheckedAtOnce) {
  ScriptedService service([](ServiceLine& line) {
    if (line.Take(72) && line.Send(kBindAck) && line.Take(36) && line.Send(GetParam().answer)) {
      line.Hold();
    }
  });
  const Outcome outcome = Ask(service);
  EXPECT_EQ(outcome.bind, CallResult::Success);
  EXPECT_EQ(outcome.call, GetParam().result);
  EXPECT_EQ(outcome.engine, GetParam().result == CallResult::Success ? 111 : 7);
  EXPECT_LT(outcome.time, kStep);
}

Octets Repeated(const Octets& first, const Octets& next, int times) {
  Octets all = first;
  for (int i = 0; i < times; ++i) all.insert(all.end(), next.begin(), next.end());
  return all;
}

const Octets kFirstPart = With(With(kResponse20, 3, 1), 8, 24 + 9);
const Octets kEmptyPart =
    With(With(Octets(kResponse20.begin(), kResponse20.begin() + 24), 3, 0),  //
         8, 24);
const Octets kLargePart = [] {
  Octets part = With(kResponse20, 3, 0);
  part.resize(24 + 2048);
  return With(With(part, 8, 0x18), 9, 0x08);
}();

INSTANTIATE_TEST_SUITE_P(
    Answers, Reply,
    testing::Values(
        ReplyStory{"Good", kResponse20, CallResult::Success},
        ReplyStory{"GoodWithWideTruth", kResponse20Wide, CallResult::Success},
        ReplyStory{"GoodWithIdOne", With(kResponse20, 12, 1), CallResult::Success},
        ReplyStory{"GoodWithHugeHint", With(With(kResponse20, 16, 0xFF), 19, 0x7F),
                   CallResult::Success},
        ReplyStory{"GoodAndAnother", test::operator+(kResponse20, kResponse20),
                   CallResult::Success},
        ReplyStory{"ReturnsFalse", With(kResponse20, 32, 0), CallResult::ReturnedFalse},
        ReplyStory{"Fault", With(kFault, 12, 2)}, ReplyStory{"ShortFault", With(kFault, 8, 24)},
        ReplyStory{"LengthZero", With(kResponse20, 8, 0)},
        ReplyStory{"LengthTwelve", With(kResponse20, 8, 12)},
        ReplyStory{"LengthSixteen", With(kResponse20, 8, 16)},
        ReplyStory{"LengthLargestThenSilence", With(With(kResponse20, 8, 0xFF), 9, 0xFF)},
        ReplyStory{"EndlessEmptyFragments", Repeated(kFirstPart, kEmptyPart, 100)},
        ReplyStory{"EndlessData", Repeated(kFirstPart, kLargePart, 4)},
        ReplyStory{"WrongCallId", With(kResponse20, 12, 3)},
        ReplyStory{"NoFirstFragment", With(kResponse20, 3, 2)},
        ReplyStory{"OtherType", With(kResponse20, 2, 12)},
        ReplyStory{"VersionFour", With(kResponse20, 0, 4)},
        ReplyStory{"MinorVersionTwo", With(kResponse20, 1, 2)},
        ReplyStory{"Authentication", With(kResponse20, 10, 1)},
        ReplyStory{"Ebcdic", With(kResponse20, 4, 0x11)},
        ReplyStory{"VaxFloats", With(kResponse20, 5, 1)},
        ReplyStory{"OtherOrderHalfway",
                   test::operator+(kFirstPart, Hex("05 00 02 02 00 00 00 00 00 18 00 00 00 00 00 02"
                                                   "00 00 00 00 00 00 00 00"))},
        ReplyStory{"TooShort", With(Octets(kResponse20.begin(), kResponse20.end() - 1), 8, 32)},
        ReplyStory{"TooLong", With(test::operator+(kResponse20Wide, Hex("00")), 8, 37)}),
    [](const auto& story) { return std::string(story.param.name); });

// ---- Slow services ---------------------------------------------------------------------------

TEST(Client, LimitsItsWaitForASlowService) {
  ScriptedService service([](ServiceLine& line) {
    if (!line.Take(72) || !line.Send(kBindAck) || !line.Take(36)) return;
    // Each byte comes less than a second after the one before it.
    for (const std::byte byte : kResponse20) {
      if (line.over() || !line.Send({byte})) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
  });
  const Outcome outcome = Ask(service);
  EXPECT_EQ(outcome.call, CallResult::NetworkError);
  EXPECT_GE(outcome.time, kStep);
  EXPECT_LT(outcome.time, kStep + kSlack);
}

TEST(Client, LimitsItsWaitForASilentService) {
  ScriptedService service([](ServiceLine& line) { line.Hold(); });
  Outcome outcome = Ask(service);
  EXPECT_EQ(outcome.bind, CallResult::BindingError);
  EXPECT_LT(outcome.time, kStep + kSlack);

  RpcTrackClient client(service.port());
  client.EndBy(Deadline(Milliseconds(50)));
  const auto start = steady_clock::now();
  EXPECT_EQ(client.Bind("127.0.0.1"), CallResult::BindingError);
  EXPECT_LT(steady_clock::now() - start, kStep);
}

TEST(Client, DoesNotBindWithoutAService) {
  for (const char* host : {"", "nobody.invalid", "127.0.0.1"}) {
    RpcTrackClient client(1);  // no program listens on this port
    EXPECT_EQ(client.Bind(host), CallResult::BindingError) << host;
  }
  EXPECT_EQ(RpcTrackClient(0).Bind("127.0.0.1"), CallResult::BindingError);
}

TEST(Client, ReconnectsWhenAnIdleConnectionHasEnded) {
  ScriptedService service([](ServiceLine& line) {
    if (line.Take(72) && line.Send(kBindAck) && line.Take(36)) line.Send(kResponse20);
  });
  RpcTrackClient client(service.port());
  ASSERT_EQ(client.Bind("127.0.0.1"), CallResult::Success);
  for (int i = 0; i < 5; ++i) {
    std::int32_t engine = 0, sensor = 0;
    ASSERT_EQ(client.GetMapping(kKey, engine, sensor), CallResult::Success) << i;
    ASSERT_EQ(engine, 111);
  }
  EXPECT_EQ(service.connections(), 5);
}

// An unexpected answer must not be taken for the answer to the next call.
TEST(Client, DropsAConnectionWithUnexpectedBytes) {
  ScriptedService service([&](ServiceLine& line) {
    if (!line.Take(72) || !line.Send(kBindAck) || !line.Take(36)) return;
    line.Send(kResponse20);
    line.Send(With(With(kResponse20, 12, 3), 24, 0x70));
    line.Hold();
  });
  RpcTrackClient client(service.port());
  ASSERT_EQ(client.Bind("127.0.0.1"), CallResult::Success);
  for (int i = 0; i < 3; ++i) {
    std::int32_t engine = 0, sensor = 0;
    ASSERT_EQ(client.GetMapping(kKey, engine, sensor), CallResult::Success);
    ASSERT_EQ(engine, 111);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

TEST(Client, PausesAfterAFailureAndThenReconnects) {
  std::atomic<bool> well = false;
  ScriptedService service([&](ServiceLine& line) {
    if (!line.Take(72) || !line.Send(kBindAck) || !line.Take(36)) return;
    line.Send(well ? kResponse20 : Octets(kResponse20.begin(), kResponse20.begin() + 20));
    if (well) line.Hold();
  });
  RpcTrackClient client(service.port());
  ASSERT_EQ(client.Bind("127.0.0.1"), CallResult::Success);
  std::int32_t engine = 0, sensor = 0;
  const auto start = steady_clock::now();
  EXPECT_EQ(client.GetMapping(kKey, engine, sensor), CallResult::NetworkError);
  well = true;
  EXPECT_TRUE(test::WaitUntil(
      [&] { return client.GetMapping(kKey, engine, sensor) == CallResult::Success; }));
  EXPECT_GE(steady_clock::now() - start, RpcTrackClient::kRest);
  EXPECT_EQ(service.connections(), 2);
}

}  // namespace
}  // namespace kinetrel::rpc

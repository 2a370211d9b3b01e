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
using test::Repeated;
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

bool Answers(RpcTrackClient& client) {
  std::int32_t engine = 0, sensor = 0;
  return client.GetMapping(kKey, engine, sensor) == CallResult::Success && engine == 111;
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

struct Story {
  const char* name;
  Octets answer;
  CallResult result = CallResult::NetworkError;  // of the call; NotOpen: the bind is refused
};

class Answer : public testing::TestWithParam<Story> {};

TEST_P(Answer, IsCheckedAtOnce) {
  const auto& [name, answer, result] = GetParam();
  const bool toTheBind = result == CallResult::NotOpen;
  ScriptedService service([toTheBind, answer = answer](ServiceLine& line) {
    if (!line.Take(72)) return;
    if (!toTheBind && !(line.Send(kBindAck) && line.Take(36))) return;
    if (line.Send(answer)) line.Hold();
  });
  const Outcome outcome = Ask(service);
  EXPECT_EQ(outcome.bind, toTheBind ? CallResult::BindingError : CallResult::Success);
  EXPECT_EQ(outcome.call, result);
  EXPECT_EQ(outcome.engine, result == CallResult::Success ? 111 : 7);
  EXPECT_LT(outcome.time, kStep);
}

std::string Name(const testing::TestParamInfo<Story>& row) { return row.param.name; }

INSTANTIATE_TEST_SUITE_P(
    ToABind, Answer,
    testing::Values(Story{"InterfaceRefused", kBindRefused, CallResult::NotOpen},
                    Story{"Nak", kBindNak, CallResult::NotOpen},
                    Story{"Fault", With(kFault, 12, 1), CallResult::NotOpen},
                    Story{"HugeEndpoint", With(With(kBindAck, 24, 0xFE), 25, 0xFF),
                          CallResult::NotOpen},
                    Story{"TwoHundredResults", With(kBindAck, 32, 200), CallResult::NotOpen},
                    Story{"NoResults", With(kBindAck, 32, 0), CallResult::NotOpen},
                    Story{"OtherTransferSyntax", With(kBindAck, 40, 0x33), CallResult::NotOpen},
                    Story{"WrongCallId", With(kBindAck, 12, 9), CallResult::NotOpen},
                    Story{"LengthTwelve", With(kBindAck, 8, 12), CallResult::NotOpen},
                    Story{"WebServer", Hex("48 54 54 50 2f 31 2e 31 20 34 30 30 20 42 61 64"),
                          CallResult::NotOpen}),
    Name);

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
    ToACall, Answer,
    testing::Values(
        Story{"Good", kResponse20, CallResult::Success},
        Story{"GoodWithWideTruth", kResponse20Wide, CallResult::Success},
        Story{"GoodWithIdOne", With(kResponse20, 12, 1), CallResult::Success},
        Story{"GoodWithHugeHint", With(With(kResponse20, 16, 0xFF), 19, 0x7F), CallResult::Success},
        Story{"GoodAndAnother", test::operator+(kResponse20, kResponse20), CallResult::Success},
        Story{"ReturnsFalse", With(kResponse20, 32, 0), CallResult::ReturnedFalse},
        Story{"Fault", With(kFault, 12, 2)}, Story{"ShortFault", With(kFault, 8, 24)},
        Story{"LengthZero", With(kResponse20, 8, 0)},
        Story{"LengthTwelve", With(kResponse20, 8, 12)},
        Story{"LengthSixteen", With(kResponse20, 8, 16)},
        Story{"LengthLargestThenSilence", With(With(kResponse20, 8, 0xFF), 9, 0xFF)},
        Story{"EndlessEmptyFragments", Repeated(kFirstPart, kEmptyPart, 100)},
        Story{"EndlessData", Repeated(kFirstPart, kLargePart, 4)},
        Story{"WrongCallId", With(kResponse20, 12, 3)},
        Story{"NoFirstFragment", With(kResponse20, 3, 2)},
        Story{"OtherType", With(kResponse20, 2, 12)}, Story{"VersionFour", With(kResponse20, 0, 4)},
        Story{"MinorVersionTwo", With(kResponse20, 1, 2)},
        Story{"Authentication", With(kResponse20, 10, 1)},
        Story{"Ebcdic", With(kResponse20, 4, 0x11)}, Story{"VaxFloats", With(kResponse20, 5, 1)},
        Story{"OtherOrderHalfway",
              test::operator+(kFirstPart, Hex("05 00 02 02 00 00 00 00 00 18 00 00 00 00 00 02"
                                              "00 00 00 00 00 00 00 00"))},
        Story{"TooShort", With(Octets(kResponse20.begin(), kResponse20.end() - 1), 8, 32)},
        Story{"TooLong", With(test::operator+(kResponse20Wide, Hex("00")), 8, 37)}),
    Name);

// ---- Slow services ---------------------------------------------------------------------------

TEST(Client, LimitsItsWaitForASlowService) {
  ScriptedService service([](ServiceLine& line) {
    if (!line.TakeRequest(kBindAck)) return;
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
    if (line.TakeRequest(kBindAck)) line.Send(kResponse20);
  });
  RpcTrackClient client(service.port());
  ASSERT_EQ(client.Bind("127.0.0.1"), CallResult::Success);
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(Answers(client)) << i;
  }
  EXPECT_EQ(service.connections(), 5);
}

// An unexpected answer must not be taken for the answer to the next call.
TEST(Client, DropsAConnectionWithUnexpectedBytes) {
  ScriptedService service([&](ServiceLine& line) {
    if (!line.TakeRequest(kBindAck)) return;
    line.Send(kResponse20);
    line.Send(With(With(kResponse20, 12, 3), 24, 0x70));
    line.Hold();
  });
  RpcTrackClient client(service.port());
  ASSERT_EQ(client.Bind("127.0.0.1"), CallResult::Success);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(Answers(client));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

TEST(Client, PausesAfterAFailureAndThenReconnects) {
  std::atomic<bool> well = false;
  ScriptedService service([&](ServiceLine& line) {
    if (!line.TakeRequest(kBindAck)) return;
    line.Send(well ? kResponse20 : Octets(kResponse20.begin(), kResponse20.begin() + 20));
    if (well) line.Hold();
  });
  RpcTrackClient client(service.port());
  ASSERT_EQ(client.Bind("127.0.0.1"), CallResult::Success);
  std::int32_t engine = 0, sensor = 0;
  const auto start = steady_clock::now();
  EXPECT_EQ(client.GetMapping(kKey, engine, sensor), CallResult::NetworkError);
  well = true;
  EXPECT_TRUE(test::WaitUntil([&] { return Answers(client); }));
  EXPECT_GE(steady_clock::now() - start, RpcTrackClient::kRest);
  EXPECT_EQ(service.connections(), 2);
}

}  // namespace
}  // namespace kinetrel::rpc

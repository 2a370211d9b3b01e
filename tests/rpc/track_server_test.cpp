// The server against correct, faulty, slow and very many clients.
#include "rpc/track_server.h"

#include <gtest/gtest.h>

#include "rpc/track_client.h"
#include "tests/rpc/hex.h"
#include "tests/support/wait_until.h"

namespace kinetrel::rpc {
namespace {

using test::Hex;
using test::kPatience;
using test::Octets;
using test::Repeated;
using test::ToHex;
using test::With;
using namespace test::wire;
using std::chrono::steady_clock;

constexpr TrackKey kKey = {11, 22, 33};

// Knows one mapping and gives the answers of the recorded session.
class Fixed final : public TrackProcedures {
 public:
  MappingReply GetMapping(const TrackKey& key) override {
    ++calls;
    return key == kKey ? MappingReply{true, 111, 222} : MappingReply{};
  }
  AttributeReply GetAttribute(const AttributeArguments& arguments) override {
    ++calls;
    return {arguments.engine == 111, 1115};
  }
  bool GetFloats(const FloatsArguments& arguments, std::span<float> values) override {
    ++calls;
    constexpr std::array kAngles = {11.25F, -0.5F, 2.75F};
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = kAngles[i % 3];
    return arguments.key == kKey;
  }
  std::atomic<int> calls = 0;
};

Octets ReplyForm(const Octets& pdu, int hint) {  // our server writes a Boolean as four bytes
  Octets wide = pdu;
  wide.resize(pdu.size() + 3);
  return With(With(wide, 8, static_cast<int>(wide.size())), 16, hint);
}

// ---- Without sockets -------------------------------------------------------------------------

struct Session {
  Fixed procedures;
  ServerSession session{procedures, 1, "5437"};

  // Returns the replies to these bytes.
  std::string Say(Octets bytes) {
    std::string heard;
    while (!bytes.empty() && !session.InputRoom().empty()) {
      const auto room = session.InputRoom();
      const std::size_t count = std::min(room.size(), bytes.size());
      std::copy_n(bytes.begin(), count, room.begin());
      session.Received(count);
      bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
      do {
        session.Work();
        if (!session.Output().empty()) heard += ToHex(session.Output()) + '\n';
        session.Sent(session.Output().size());
      } while (session.HasWork());
    }
    return heard;
  }
};

TEST(ServerSession, TalksByteForByte) {
  Session peer;
  EXPECT_EQ(peer.Say(kBind), ToHex(kBindAck) + '\n');
  EXPECT_EQ(peer.Say(kRequest20), ToHex(kResponse20Wide) + '\n');
  EXPECT_EQ(peer.Say(kRequest14), ToHex(ReplyForm(kResponse14, 8)) + '\n');
  EXPECT_EQ(peer.Say(kRequest37), ToHex(ReplyForm(kResponse37, 20)) + '\n');
  // An unknown procedure causes a fault, and the connection stays open.
  EXPECT_EQ(peer.Say(With(With(kRequest20, 22, 41), 12, 5)), ToHex(kFault) + '\n');
  EXPECT_EQ(peer.Say(kRequest20), ToHex(kResponse20Wide) + '\n');
  EXPECT_FALSE(peer.session.IsOver());
}

TEST(ServerSession, TakesMessagesInAnyPieces) {
  Session bytewise, together;
  std::string heard;
  const Octets all = test::operator+(kBind, test::operator+(kRequest20, kRequest14));
  for (const std::byte byte : all) heard += bytewise.Say({byte});
  EXPECT_EQ(heard, together.Say(all));
  EXPECT_EQ(bytewise.procedures.calls, 2);
  // A request in two fragments.
  Octets first(kRequest20.begin(), kRequest20.begin() + 30);
  Octets last = kRequest20;
  last.erase(last.begin() + 24, last.begin() + 30);
  first = With(With(first, 3, 1), 8, 30);
  last = With(With(last, 3, 2), 8, 30);
  EXPECT_EQ(together.Say(test::operator+(first, last)), ToHex(kResponse20Wide) + '\n');
}

TEST(ServerSession, UnderstandsABigEndianClient) {
  for (const char* const version : {"00 01 00 01", "00 00 00 01"}) {  // 1.1 and 1.0
    Session peer;
    EXPECT_EQ(
        peer.Say(Hex("05 00 0b 03 00 00 00 00 00 48 00 00 00 00 00 01 16 d0 16 d0 00 00 00 00 "
                     "01 00 00 00 00 00 01 00 fa 52 7e f1 b1 ac 48 eb b7 e3 d2 89 37 84 fa 6f" +
                     std::string(version) +
                     "8a 88 5d 04 1c eb 11 c9 9f e8 08 00 2b 10 48 60 00 00 00 02")),
        ToHex(kBindAck) + '\n');
    EXPECT_EQ(peer.Say(Hex("05 00 00 03 00 00 00 00 00 24 00 00 00 00 00 02 00 00 00 0c 00 00 00 14"
                           "00 00 00 0b 00 00 00 16 00 00 00 21")),
              ToHex(kResponse20Wide) + '\n');
  }
}

// A client that also offers another transfer syntax and another interface.
TEST(ServerSession, AnswersEachContextByItself) {
  Octets bind = kBind;
  Octets features(kBind.begin() + 28, kBind.end());
  features = With(With(features, 0, 1), 24, 0x2C);  // another transfer syntax
  Octets stranger(kBind.begin() + 28, kBind.end());
  stranger = With(With(stranger, 0, 2), 4, 0);  // another interface
  bind = With(With(test::operator+(test::operator+(bind, features), stranger), 24, 3), 8, 160);
  Session peer;
  Octets ack = With(With(kBindAck, 32, 3), 8, 108);
  ack = test::operator+(ack, test::operator+(Hex("02 00 02 00"), Octets(20)));
  ack = test::operator+(ack, test::operator+(Hex("02 00 01 00"), Octets(20)));
  EXPECT_EQ(peer.Say(bind), ToHex(ack) + '\n');
  const auto fault = peer.Say(With(kRequest20, 20, 1));  // on a refused context
  EXPECT_EQ(fault.substr(24 * 3, 11), "03 00 01 1c");
  Octets alter = With(With(kBind, 2, 14), 28, 9);
  EXPECT_EQ(peer.Say(alter).substr(0, 11), "05 00 0f 03");
  EXPECT_EQ(peer.Say(With(kRequest20, 20, 9)), ToHex(With(kResponse20Wide, 20, 9)) + '\n');
}

struct Story {
  const char* name;
  Octets bytes;        // sent after a bind, unless they are a bind themselves
  std::string answer;  // its beginning; empty: no answer
  bool ends = true;    // the server closes the connection
};

class Said : public testing::TestWithParam<Story> {};

TEST_P(Said, IsAnsweredOrEndsTheConnection) {
  Session peer;
  if (GetParam().bytes[2] != std::byte{11}) peer.Say(kBind);
  const std::string answer = peer.Say(GetParam().bytes);
  EXPECT_EQ(answer.substr(0, GetParam().answer.size()), GetParam().answer);
  EXPECT_EQ(answer.empty(), GetParam().answer.empty());
  EXPECT_EQ(peer.session.IsOver(), GetParam().ends);
  EXPECT_EQ(peer.procedures.calls, 0);
}

std::string FaultWith(const char* status) {
  return ToHex(With(With(Octets(kFault.begin(), kFault.begin() + 24), 12, 4), 8, 32)) + ' ' +
         status;
}

const Octets kNine =  // contexts
    Repeated(With(With(With(kBind, 24, 9), 8, 0xA8), 9, 0x01),
             Octets(kBind.begin() + 28, kBind.end()), 8);

Octets Long(std::size_t stub, int flags) {
  Octets pdu = With(kRequest20, 3, flags);
  pdu.resize(24 + stub);
  return With(With(pdu, 8, static_cast<int>(pdu.size() & 255)), 9,
              static_cast<int>(pdu.size() >> 8));
}

INSTANTIATE_TEST_SUITE_P(
    Stories, Said,
    testing::Values(
        Story{"ShortStub", With(With(kRequest37, 8, 47), 12, 4), FaultWith("f7 06 00 00"), false},
        Story{"NegativeCount",
              With(With(With(With(kRequest37, 44, 255), 45, 255), 46, 255), 47, 255),
              FaultWith("07 00 00 1c"), false},
        Story{"CountTooLarge", With(kRequest37, 44, 65), FaultWith("07 00 00 1c"), false},
        Story{"NoReplyWanted", With(With(kRequest20, 3, 0x43), 22, 14), "", false},
        Story{"Orphaned", With(kRequest20, 2, 19), "", false},
        Story{"BindOfVersionFour", With(kBind, 0, 4), "05 00 0d 03 10 00 00 00 15"},
        Story{"BindWithAuthentication", With(kBind, 10, 8), "05 00 0d 03 10 00 00 00 15"},
        Story{"BindCutShort", With(kBind, 8, 60), "05 00 0d 03 10 00 00 00 15"},
        Story{"NineContexts", kNine, "05 00 0d 03 10 00 00 00 15"},
        Story{"NoContexts", With(kBind, 24, 0), "05 00 0d 03 10 00 00 00 15"},
        Story{"LengthZero", With(kRequest20, 8, 0), ""},
        Story{"LengthTwelve", With(kRequest20, 8, 12), ""},
        Story{"LengthSixteen", With(kRequest20, 8, 16), ""},
        Story{"LengthLargest", With(With(kRequest20, 8, 255), 9, 255), ""},
        Story{"VersionFour", With(kRequest20, 0, 4), ""},
        Story{"Authentication", With(kRequest20, 10, 8), ""},
        Story{"Ebcdic", With(kRequest20, 4, 0x11), ""}, Story{"Vax", With(kRequest20, 5, 1), ""},
        Story{"Response", With(kRequest20, 2, 2), ""},
        Story{"SecondFragmentFirst", With(kRequest20, 3, 2), ""},
        Story{"StubTooLong", Long(4097, 3), ""},
        Story{"EndlessEmptyFragments", Repeated(Long(4, 1), Long(0, 0), 64), ""},
        Story{"WebBrowser", Hex("47 45 54 20 2f 20 48 54 54 50 2f 31 2e 31 0d 0a"), ""}),
    [](const auto& story) { return std::string(story.param.name); });

TEST(ServerSession, RequestBeforeABindEndsIt) {
  Session peer;
  EXPECT_EQ(peer.Say(kRequest20), "");
  EXPECT_TRUE(peer.session.IsOver());
}

// ---- With sockets ----------------------------------------------------------------------------

class Served : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.Start().Ok()); }

  StreamSocket Dial() {
    StreamConnector connector;
    return std::move(*connector.Connect("127.0.0.1", server_.port(), Deadline(kPatience)));
  }
  // True when the server closes the connection in time.
  bool Ended(StreamSocket& socket, Milliseconds within) {
    std::array<std::byte, 4096> sink;
    const Deadline end(within);
    for (;;) {
      const auto got = socket.Receive(sink, end);
      if (!got.Ok()) return got.status().error == Error::Closed;
    }
  }
  bool Answers(RpcTrackClient& client) {
    std::int32_t engine = 0, sensor = 0;
    return client.GetMapping(kKey, engine, sensor) == CallResult::Success && engine == 111;
  }

  Fixed procedures_;
  TrackServer server_{std::move(*StreamListener::Open("127.0.0.1", 0)), procedures_};
};

TEST_F(Served, ManyAtOnceGetTheirAnswers) {
  std::vector<std::thread> clients;
  std::atomic<int> answers = 0;
  for (int i = 0; i < 16; ++i) {
    clients.emplace_back([&] {
      RpcTrackClient client(server_.port());
      if (client.Bind("127.0.0.1") != CallResult::Success) return;
      for (int call = 0; call < 50; ++call) answers += Answers(client) ? 1 : 0;
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(answers, 16 * 50);
}

TEST_F(Served, SlowAndSilentClientsAreClosedInTime) {
  const auto start = steady_clock::now();
  StreamSocket silent = Dial(), dripping = Dial(), half = Dial();
  ASSERT_TRUE(half.Send(kBind, Deadline(kPatience)).Ok());
  ASSERT_TRUE(
      half.Send(Octets(kRequest20.begin(), kRequest20.end() - 1), Deadline(kPatience)).Ok());
  std::thread drip([&] {
    for (const std::byte byte : kBind) {
      if (!dripping.SendSome({&byte, 1}).Ok() || !dripping.IsQuiet()) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
  });
  EXPECT_TRUE(Ended(silent, kPatience));
  EXPECT_TRUE(Ended(half, kPatience));
  drip.join();
  EXPECT_TRUE(Ended(dripping, kPatience));
  EXPECT_GE(steady_clock::now() - start, ServerSession::kPatience);
  EXPECT_LT(steady_clock::now() - start, ServerSession::kPatience * 2);
  EXPECT_TRUE(test::WaitUntil([&] { return server_.clients() == 0; }));
}

// A client that asks and never reads fills only its own connection, and is then closed.
TEST_F(Served, AClientThatNeverReadsCausesNoWork) {
  StreamSocket greedy = Dial();
  ASSERT_TRUE(greedy.Send(kBind, Deadline(kPatience)).Ok());
  const Octets flood = Repeated({}, kRequest20, 1000);
  // On a busy machine the deadline must mean a full connection, not a slow server.
  while (greedy.Send(flood, Deadline(Milliseconds(1500))).Ok()) {
  }
  const int worked = procedures_.calls;
  RpcTrackClient client(server_.port());
  ASSERT_EQ(client.Bind("127.0.0.1"), CallResult::Success);
  EXPECT_TRUE(Answers(client));
  EXPECT_LE(procedures_.calls, worked + 10);
  EXPECT_TRUE(test::WaitUntil([&] { return server_.clients() == 1; })) << server_.clients();
  EXPECT_TRUE(Answers(client));
}

TEST_F(Served, AThousandConnectionsLeaveNothingBehind) {
  RpcTrackClient served(server_.port());
  ASSERT_EQ(served.Bind("127.0.0.1"), CallResult::Success);
  for (int i = 0; i < 1000; ++i) {
    StreamSocket passing = Dial();
    if (i % 2 == 0 && !passing.Send(kBind, Deadline(kPatience)).Ok()) FAIL() << i;
    if (i % 100 == 0 && !Answers(served)) FAIL() << i;
  }
  EXPECT_TRUE(test::WaitUntil([&] { return server_.clients() == 1; }));
  EXPECT_TRUE(Answers(served));
}

TEST_F(Served, ManyClientsDoNotDisplaceABusyOne) {
  RpcTrackClient served(server_.port());
  ASSERT_EQ(served.Bind("127.0.0.1"), CallResult::Success);
  std::vector<StreamSocket> crowd;
  for (int i = 0; i < 100; ++i) crowd.push_back(Dial());
  EXPECT_TRUE(test::WaitUntil([&] { return server_.clients() == TrackServer::kMostClients; }));
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(Answers(served)) << i;
  // Clients beyond the limit are closed at once, the others when they have not bound in time.
  EXPECT_TRUE(Ended(crowd.back(), ServerSession::kPatience / 2));
  EXPECT_TRUE(test::WaitUntil([&] { return server_.clients() == 1; }));
  EXPECT_TRUE(Answers(served));
}

}  // namespace
}  // namespace kinetrel::rpc

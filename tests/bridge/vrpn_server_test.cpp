// The VRPN server as its clients meet it: kinetrel-bridge in a process of its own, clients on real
// sockets, and a tracker whose poses the test knows.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/bridge/bridge_run.h"
#include "tests/bridge/vrpn_client.h"

namespace kinetrel::test {
namespace {

class VrpnServer : public BridgeRun {
 protected:
  void Serve(const std::string& query = "", Strings more = {}) {
    OpenTracker();
    more.push_back("vrpn://127.0.0.1:" + std::to_string(port_) + query);
    bridge_ = Start(std::move(more));
    ASSERT_TRUE(ExpectRunning(*bridge_)) << bridge_->error();
  }

  // Publishes until the client has a pose, and returns the first one.
  std::optional<VrpnHeard> PoseOf(VrpnTestClient& client, double x = 1.5) {
    std::optional<VrpnHeard> found;
    WaitUntil([&] {
      tracker_->Publish(x);
      const bool open = client.Hear();
      while (!found && !client.ear.heard.empty()) {
        if (client.ear.heard.front().type == kVrpnPose) found = client.ear.heard.front();
        client.ear.heard.pop_front();
      }
      return found.has_value() || !open;
    });
    return found;
  }

  // A client that has been greeted.
  std::unique_ptr<VrpnTestClient> Greeted() {
    auto client = std::make_unique<VrpnTestClient>(port_);
    EXPECT_TRUE(PoseOf(*client).has_value());
    return client;
  }

  const std::uint16_t port_ = FreePort();
  std::unique_ptr<ChildProcess> bridge_;
};

Octets Bytes(const std::string& text) {
  Octets bytes;
  for (const char c : text) bytes.push_back(static_cast<std::byte>(c));
  return bytes;
}

// ---- What an honest client gets
// ------------------------------------------------------------------

TEST_F(VrpnServer, GreetsAndSendsPosesByteForByte) {
  Serve();
  const auto client = Greeted();
  EXPECT_EQ(client->cookie, std::string("vrpn: ver. 07.38  0\0\0\0\0\0", 24));
  const std::string number = std::to_string(slot_.slot() - 1);
  EXPECT_EQ(client->ear.senders, (Strings{"Tracker" + number, "Button" + number}));
  EXPECT_EQ(client->ear.types.size(), 6U);

  const std::int64_t before = kinetrel_now_ns();
  const std::int64_t sampleNs = tracker_->Publish(1.5, 4);
  std::optional<VrpnHeard> pose;
  do {
    pose = client->Next(kVrpnPose);
    ASSERT_TRUE(pose.has_value());
  } while (pose->U32(0) != 3);
  EXPECT_EQ(pose->sender, 0);
  // Sensor 3 at (1.5, -0.25, 2), quaternion x y z w of (0, 0, 0.6, 0.8) as float.
  EXPECT_EQ(ToHex(std::span(pose->payload).first(48)),
            ToHex(Hex("00000003 00000003 3ff80000 00000000 bfd00000 00000000 40000000 00000000"
                      "00000000 00000000 00000000 00000000")));
  EXPECT_NEAR(pose->F64(48), 0.6, 1e-6);
  EXPECT_NEAR(pose->F64(56), 0.8, 1e-6);
  const auto wall = std::chrono::system_clock::now().time_since_epoch();
  const std::int64_t age = std::chrono::nanoseconds(wall).count() - pose->utcNs;
  // The sample's own time, to the microsecond that VRPN has and the drift of the clocks in a
  // second.
  EXPECT_NEAR(static_cast<double>(age), static_cast<double>(kinetrel_now_ns() - sampleNs), 2e6);
  EXPECT_GE(sampleNs, before);
}

TEST_F(VrpnServer, AnswersPingsOfItsDevicesOnly) {
  Serve("?name=Kinetrel&buttons=Minetrel");
  VrpnTestClient known(port_, WatchedVrpnClient());
  const auto pong = known.Next("vrpn_Base pong_message");
  ASSERT_TRUE(pong.has_value());
  EXPECT_EQ(pong->sender, 0);
  EXPECT_TRUE(pong->payload.empty());

  // The same client asks for "Xinetrel": the server must not answer, since it has no such device.
  // Then it asks for the buttons, so that the first answer shows whether there was one before.
  Octets stranger = WatchedVrpnClient();
  Octets sender(stranger.begin() + 72, stranger.begin() + 112);  // the device's description
  const Octets ping(stranger.end() - 24, stranger.end());
  stranger[72 + 28] = static_cast<std::byte>('X');
  sender[28] = static_cast<std::byte>('M');
  VrpnTestClient unknown(port_, stranger + sender + ping);
  const auto first = unknown.Next("vrpn_Base pong_message");
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->sender, 1);
}

TEST_F(VrpnServer, KeepsOneAnswerForAClientThatAsksAndDoesNotRead) {
  Serve("?name=Kinetrel");
  const Octets hello = WatchedVrpnClient();
  VrpnTestClient client(port_, hello);
  Octets pings;
  for (int i = 0; i < 1000; ++i) pings.insert(pings.end(), hello.end() - 24, hello.end());
  for (int i = 0; i < 40; ++i) ASSERT_TRUE(client.Send(pings));
  EXPECT_TRUE(PoseOf(client).has_value());
}

TEST_F(VrpnServer, CallsBackAndSendsPosesByUdp) {
  Serve();
  auto listener = StreamListener::Open("127.0.0.1", 0);
  auto datagrams = DatagramSocket::Open(0);
  ASSERT_TRUE(listener.Ok() && datagrams.Ok());
  const Octets call = Bytes("127.0.0.1 " + std::to_string(listener->port())) + Hex("00");
  std::unique_ptr<VrpnTestClient> client;
  ASSERT_TRUE(WaitUntil([&] {
    static_cast<void>(datagrams->Send("127.0.0.1", port_, call));
    auto accepted = listener->Accept();
    if (accepted.Ok()) client = std::make_unique<VrpnTestClient>(std::move(*accepted));
    return client != nullptr;
  }));
  // The server's cookie comes before the client has said anything.
  ASSERT_TRUE(WaitUntil([&] { return client->Hear() && client->cookie.size() == 24; }));
  Octets udp = WatchedVrpnUdp();
  udp[14] = static_cast<std::byte>(datagrams->port() >> 8);
  udp[15] = static_cast<std::byte>(datagrams->port() & 0xFF);
  ASSERT_TRUE(client->Send(WatchedVrpnCookie() + udp));
  ASSERT_TRUE(WaitUntil([&] { return client->Hear() && client->ear.types.size() == 6; }));

  VrpnEar ear;
  ear.types = client->ear.types;
  std::array<std::byte, 2048> datagram;
  ASSERT_TRUE(WaitUntil([&] {
    tracker_->Publish(1.5, 20);
    const auto got = datagrams->Receive(datagram);
    if (got.Ok()) {
      EXPECT_LE(*got, 16 * 88U);
      ear.Add(std::span(datagram).first(*got));
    }
    return ear.heard.size() >= 20;
  }));
  EXPECT_EQ(ear.heard[19].type, kVrpnPose);
  EXPECT_EQ(ear.heard[19].F64(8), 1.5);
  // Buttons go by TCP.
  tracker_->buttonsKnown = 1;
  tracker_->Publish(1.5);
  EXPECT_TRUE(client->Next("vrpn_Button States").has_value());
}

TEST_F(VrpnServer, TellsButtonsAsStatesAndChanges) {
  Serve();
  tracker_->buttonsKnown = 0x7;
  tracker_->buttons = 0x4;
  const auto client = Greeted();
  client->ear.heard.clear();
  tracker_->buttons = 0x6;
  tracker_->Publish(1.5);
  for (const std::int32_t sender : {0, 1}) {  // of the tracker, and of Button0
    const auto change = client->Next("vrpn_Button Change");
    ASSERT_TRUE(change.has_value());
    EXPECT_EQ(change->sender, sender);
    EXPECT_EQ(change->U32(0), 1U);
    EXPECT_EQ(change->U32(4), 1U);
  }
  VrpnTestClient later(port_);
  const auto states = later.Next("vrpn_Button States");
  ASSERT_TRUE(states.has_value());
  EXPECT_EQ(ToHex(states->payload), ToHex(Hex("00000003 00000000 00000001 00000001")));
}

TEST_F(VrpnServer, GivesEveryBodyADevice) {
  Serve("?bodies=yes&sensors=1,2&name=head,hand");
  VrpnTestClient client(port_);
  std::optional<VrpnHeard> pose;
  ASSERT_TRUE(WaitUntil([&] {
    tracker_->Publish(1.5, 3);
    client.Hear();
    for (const VrpnHeard& message : client.ear.heard) {
      if (message.type == kVrpnPose && message.sender == 1) pose = message;
    }
    return pose.has_value();
  }));
  EXPECT_EQ(client.ear.senders,
            (Strings{"head", "hand", "Button" + std::to_string(slot_.slot() - 1)}));
  EXPECT_EQ(pose->U32(0), 0U);
}

TEST_F(VrpnServer, OneServerHasTheTrackersOfSeveralSlots) {
  const FreeSlot other;
  KnownTracker second(other);
  OpenTracker();
  const std::string output = "vrpn://127.0.0.1:" + std::to_string(port_);
  bridge_ = Start({output + "?name=First", "--slot", std::to_string(other.slot()),
                   output + "?name=Second&buttons=Buttons"});
  VrpnTestClient client(port_);
  std::array<double, 4> newest{};  // x, by sender
  EXPECT_TRUE(WaitUntil([&] {
    tracker_->Publish(1);
    second.Publish(2);
    client.Hear();
    for (const VrpnHeard& message : client.ear.heard) {
      if (message.type == kVrpnPose)
        newest.at(static_cast<std::size_t>(message.sender)) = message.F64(8);
    }
    return newest == std::array<double, 4>{1, 0, 2, 0};
  })) << bridge_->error();
  EXPECT_EQ(client.ear.senders[0], "First");
  EXPECT_EQ(client.ear.senders[2], "Second");
}

// ---- A tracker that goes and comes
// ---------------------------------------------------------------

TEST_F(VrpnServer, SendsNothingOldWhenTheTrackerIsSilentOrStartsAgain) {
  Serve();
  const auto client = Greeted();
  tracker_->SetState(kinetrel_state_silent, "Check the cable.");
  const auto warning = client->Next("vrpn_Base text_message");
  ASSERT_TRUE(warning.has_value());
  EXPECT_EQ(warning->U32(0), 1U);
  EXPECT_EQ(warning->Text(8), "tracker silent: Check the cable.");
  EXPECT_TRUE(bridge_->ExpectError("silent: Check the cable."));
  tracker_->flags = 0;  // the tracker does not see the sensor, so the server sends no pose
  tracker_->Publish(2.5);
  OpenTracker();  // the writer starts again
  ASSERT_TRUE(bridge_->ExpectError("running\n", kPatience));
  client->ear.heard.clear();
  const auto pose = PoseOf(*client, 3.5);
  ASSERT_TRUE(pose.has_value());
  EXPECT_EQ(pose->F64(8), 3.5);
}

// ---- Clients that do harm
// ------------------------------------------------------------------------

TEST_F(VrpnServer, DropsClientsThatAreNotVrpn) {
  Serve();
  const auto honest = Greeted();
  const std::string web = "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n";
  VrpnTestClient garbage(port_, Bytes(web));
  VrpnTestClient lengthZero(port_, WatchedVrpnCookie() + Octets(24));
  VrpnTestClient lengthHuge(port_, WatchedVrpnCookie() + Octets(24, std::byte{0xFF}));
  VrpnTestClient silent(port_, {});
  VrpnTestClient half(port_, Bytes("vrpn: ver."));
  for (auto* const client : {&garbage, &lengthZero, &lengthHuge}) {
    EXPECT_TRUE(client->ExpectClosed());
  }
  auto datagrams = DatagramSocket::Open(0);
  ASSERT_TRUE(datagrams.Ok());
  for (int i = 0; i < 1000; ++i) {
    const std::string call = "127.0.0.1 " + std::to_string(i < 500 ? 22 : 20000 + i);
    static_cast<void>(datagrams->Send("127.0.0.1", port_, Bytes(call)));
  }
  honest->ear.heard.clear();
  EXPECT_TRUE(PoseOf(*honest).has_value());
  // Five seconds for the cookie.
  EXPECT_TRUE(silent.ExpectClosed());
  EXPECT_TRUE(half.ExpectClosed());
  EXPECT_TRUE(honest->Hear());
}

TEST_F(VrpnServer, SendsDatagramsOnlyToAClientThatItCalled) {
  Serve();
  // A connection may come from anywhere; its poses stay on it.
  VrpnTestClient client(port_, WatchedVrpnCookie() + WatchedVrpnUdp());
  EXPECT_TRUE(PoseOf(client).has_value());
}

TEST_F(VrpnServer, AStoppedReaderHoldsUpNoOtherAndIsDropped) {
  Serve("", {"--status", "1"});
  std::vector<std::unique_ptr<VrpnTestClient>> others;
  for (int i = 0; i < 99; ++i) {
    others.push_back(Greeted());
    for (const auto& client : others) client->Hear();  // a slow machine needs more than ten seconds
  }
  VrpnTestClient stopped(port_);
  stopped.socket().LimitBuffers(4096);
  ASSERT_TRUE(bridge_->ExpectError("100 clients")) << bridge_->error();
  // Far more than the system holds for a client. Every one of the others gets the last frame.
  constexpr int kFrames = 100;
  for (int frame = 0; frame < kFrames; ++frame) {
    tracker_->Publish(frame, 32);
    for (const auto& client : others) ASSERT_TRUE(client->Hear());
  }
  for (const auto& client : others) {
    EXPECT_TRUE(WaitUntil([&] {
      return client->Hear() && client->ear.heard.back().type == kVrpnPose &&
             client->ear.heard.back().F64(8) == kFrames - 1;
    }));
  }
  // What it finds when it goes on is not the whole backlog, and the newest is there; unless so slow
  // a machine needed more than its ten seconds.
  bool dropped = false;
  ASSERT_TRUE(WaitUntil([&] {
    dropped = !stopped.Hear();
    return dropped || (!stopped.ear.heard.empty() && stopped.ear.heard.back().type == kVrpnPose &&
                       stopped.ear.heard.back().F64(8) == kFrames - 1);
  }));
  EXPECT_LT(stopped.ear.heard.size(), kFrames / 2 * 32U);
  if (dropped) return;
  // Stopped for good.
  EXPECT_TRUE(WaitUntil(
      [&] {
        tracker_->Publish(0, 32);
        for (const auto& client : others) {
          client->Hear();
          client->ear.heard.clear();
        }
        return bridge_->error().find(" 99 clients") != std::string::npos;
      },
      2 * kPatience))
      << bridge_->error();
  EXPECT_TRUE(stopped.ExpectClosed());
}

// ---- Starting ----------------------------------------------------------------------------------

TEST_F(VrpnServer, RefusesToStartWithOneClearLine) {
  const auto taken = StreamListener::Open("127.0.0.1", port_);
  ASSERT_TRUE(taken.Ok());
  const std::string port = std::to_string(port_);
  for (const auto& [arguments, words] : std::vector<std::pair<Strings, std::string>>{
           {{"vrpm"}, "vrpm: unknown protocol vrpm; did you mean vrpn?"},
           {{"vrpn://127.0.0.1:" + port}, "port " + port + " of 127.0.0.1 cannot be opened"},
           {{"vrpn?bodys=yes"}, "unknown option bodys; did you mean bodies?"},
           {{"vrpn", "vrpn"}, "two devices have the name Tracker"},
           {{"freed://127.0.0.1", "--slot", "2", "freed://127.0.0.1"}, "set camera= for one"},
           {{"dtrack://127.0.0.1", "--slot", "2", "dtrack://127.0.0.1"}, "another port"},
           {{"vrpn://no-such-host.invalid"}, "no-such-host.invalid does not resolve"},
           {{"--slot", "17", "vrpn"}, "--slot"},
           {{}, "name at least one output"}}) {
    ChildProcess bridge("kinetrel-bridge", arguments);
    EXPECT_EQ(bridge.Wait(), 2) << words;
    EXPECT_NE(bridge.error().find(words), std::string::npos) << bridge.error();
    EXPECT_EQ(std::count(bridge.error().begin(), bridge.error().end(), '\n'), 1);
  }
}

TEST_F(VrpnServer, DryRunPrintsWhatItWouldSend) {
  OpenTracker();
  const auto bridge = Start({"vrpn", "--dry-run", "--once"});
  ASSERT_TRUE(ExpectRunning(*bridge));
  EXPECT_TRUE(WaitUntil([&] {
    tracker_->Publish(1.5);
    return bridge->Wait(std::chrono::milliseconds(1)) == 0;
  }));
  EXPECT_NE(bridge->output().find("sender 0 vrpn_Tracker Pos_Quat sensor 0 position 1.500000 "
                                  "-0.250000 2.000000 quaternion xyzw 0.000000 0.000000 0.600000"),
            std::string::npos)
      << bridge->output();
}

// ---- The whole road
// ------------------------------------------------------------------------------

TEST_F(VrpnServer, SendsWhatTheSimulatedTrackerPublishes) {
  ChildProcess tracker("kinetrel", Simulated(slot_));
  bridge_ = Start({"vrpn://127.0.0.1:" + std::to_string(port_)});
  kinetrel_stream stream;
  ASSERT_EQ(kinetrel_stream_open(&stream, slot_.slot(), 20000), kinetrel_stream_ok);
  VrpnTestClient client(port_);
  for (int matched = 0; matched < 10;) {
    const auto pose = client.Next(kVrpnPose);
    ASSERT_TRUE(pose.has_value());
    kinetrel_record record;
    kinetrel_run run;
    ASSERT_EQ(kinetrel_stream_run(&stream, &run), kinetrel_stream_ok);
    do {
      ASSERT_EQ(kinetrel_stream_next(&stream, &record, 5000), kinetrel_stream_ok);
    } while (record.position[0] != pose->F64(8));
    EXPECT_EQ(record.position[1], pose->F64(16));
    EXPECT_NEAR(record.orientation[3], pose->F64(48), 1e-6);
    const std::int64_t expected = kinetrel_run_utc_ns(&run, record.sample_ns);
    EXPECT_NEAR(static_cast<double>(pose->utcNs - expected), 0, 1e6);
    ++matched;
  }
  kinetrel_stream_close(&stream);
}

}  // namespace
}  // namespace kinetrel::test

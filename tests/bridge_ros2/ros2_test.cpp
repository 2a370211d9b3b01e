// kinetrel-bridge-ros2 against subscribers of another DDS vendor and a decoder of ROS 2's messages
// that we did not write, in a network of the test's own.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/bridge/bridge_run.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/support/network_namespace.h"

namespace kinetrel::test {
namespace {

using Environment = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kPoseType = "geometry_msgs::msg::dds_::PoseStamped_";
constexpr const char* kTransformsType = "tf2_msgs::msg::dds_::TFMessage_";

class Listener {
 public:
  Listener(const std::string& topic, const std::string& type, const std::string& reliability)
      : Listener(Strings{topic, type, reliability}) {}
  explicit Listener(Strings arguments, const std::string& domain = "0")
      : process_("kinetrel-test-fastdds", std::move(arguments),
                 {.environment = {{"ROS_DOMAIN_ID", domain}}}) {}

  ChildProcess& process() { return process_; }
  const std::string& text() { return process_.output(); }
  std::size_t Count() { return Look(), count_; }
  // The newest message: hexadecimal, the encapsulation included.
  const std::string& Newest() { return Look(), newest_; }

 private:
  void Look() {
    const std::string& all = text();
    constexpr std::string_view kMark = "message ";
    for (std::size_t end = 0; (end = all.find('\n', seen_)) != std::string::npos; seen_ = end + 1) {
      if (all.compare(seen_, kMark.size(), kMark) != 0) continue;
      newest_ = all.substr(seen_ + kMark.size(), end - seen_ - kMark.size());
      ++count_;
    }
  }

  ChildProcess process_;
  std::size_t seen_ = 0;
  std::size_t count_ = 0;
  std::string newest_;
};

struct Transform {
  std::int64_t utcNs = 0;
  std::string frame;
  std::string child;
  std::array<double, 7> values{};  // position x y z, orientation x y z w
};

// What the decoder says that the message holds. kind  pose or tf.
std::vector<Transform> Decode(const std::string& kind, const std::string& hex) {
  ChildProcess decoder("/usr/bin/env",
                       {"node", std::string(KINETREL_SOURCE_DIR) + "/tests/npm/ros2_decode.js"});
  decoder.Send(kind + " " + hex + "\n");
  decoder.CloseInput();
  EXPECT_TRUE(decoder.ExpectOutput("\n")) << decoder.error();
  std::istringstream words(decoder.output());
  std::string word;
  words >> word;
  std::vector<Transform> transforms;
  for (std::int64_t seconds = 0; words >> seconds;) {
    Transform& transform = transforms.emplace_back();
    words >> transform.utcNs >> transform.frame >> transform.child;
    transform.utcNs += seconds * 1'000'000'000;
    for (double& value : transform.values) words >> value;
  }
  return transforms;
}

std::int64_t UtcNow() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The known pose in ROS's axes.
void ExpectKnownPose(const std::vector<Transform>& transforms, std::int64_t utcNs,
                     const std::string& frame, const std::string& child) {
  ASSERT_EQ(transforms.size(), 1U);  // without the sensor that is out of sight
  const Transform& transform = transforms[0];
  EXPECT_EQ(transform.frame, frame);
  EXPECT_EQ(transform.child, child);
  EXPECT_NEAR(static_cast<double>(transform.utcNs - utcNs), 0, 50e6);
  const std::array known = {0.5, 0.25, -2.0, 0.0, 0.0, -0.6, 0.8};
  for (std::size_t i = 0; i < known.size(); ++i)
    EXPECT_NEAR(transform.values[i], known[i], 1e-6) << i;
}

class Ros2 : public testing::Test {
 protected:
  void SetUp() override {
    const std::string refusal = EnterOwnNetwork();
    if (!refusal.empty()) GTEST_SKIP() << refusal;
    OpenTracker();
  }

  void OpenTracker() {
    tracker_ = std::make_unique<KnownTracker>(slot_);
    tracker_->sampleNs = sampleNs_;
  }

  // One sensor that the device sees, and one that it does not.
  static void Publish(KnownTracker& tracker) { tracker.Publish(0.5, 1, 1); }

  // With the prefix and the frame "room", and the environment of a ROS user who set nothing.
  std::unique_ptr<ChildProcess> Start(Strings arguments = {}, Environment environment = {}) const {
    if (arguments.empty()) arguments = {Output("room")};
    arguments.insert(arguments.begin(), {"--slot", std::to_string(slot_.slot())});
    return StartAlone(std::move(arguments), std::move(environment));
  }
  static std::unique_ptr<ChildProcess> StartAlone(Strings arguments, Environment environment = {}) {
    arguments.insert(arguments.begin(), {"--status", "1"});
    environment.insert(environment.begin(), {"ROS_DOMAIN_ID", "0"});
    return std::make_unique<ChildProcess>(
        "kinetrel-bridge-ros2", std::move(arguments),
        ChildProcess::Options{.environment = std::move(environment)});
  }
  static std::string Output(const std::string& prefix) { return "ros2?prefix=" + prefix; }

  static std::unique_ptr<Listener> ListenToPose(const std::string& reliability = "reliable") {
    return std::make_unique<Listener>("rt/room/sensor1/pose", kPoseType, reliability);
  }

  bool PublishUntil(const std::function<bool()>& condition) {
    return WaitUntil([&] { return Publish(*tracker_), condition(); });
  }
  // Until a message comes that had not come before.
  bool PublishUntilHeard(Listener& listener) {
    const std::size_t before = listener.Count();
    return PublishUntil([&] { return listener.Count() > before; });
  }

  const FreeSlot slot_;
  // Long ago, so that it cannot be mistaken for the time of sending.
  const std::int64_t sampleNs_ = kinetrel_now_ns() - 5'000'000'000;
  const std::int64_t sampleUtcNs_ = UtcNow() - 5'000'000'000;
  std::unique_ptr<KnownTracker> tracker_;
};

// ---- What arrives -------------------------------------------------------------------------------

TEST_F(Ros2, AnotherVendorsSubscribersReceiveTheKnownPose) {
  Listener pose("rt/room/sensor1/pose", kPoseType, "reliable");
  Listener transforms("rt/tf", kTransformsType, "best-effort");
  const auto bridge = Start();
  ASSERT_TRUE(PublishUntil([&] { return pose.Count() > 0 && transforms.Count() > 0; }))
      << bridge->error() << pose.text() << transforms.text();
  ExpectKnownPose(Decode("pose", pose.Newest()), sampleUtcNs_, "room", "-");
  ExpectKnownPose(Decode("tf", transforms.Newest()), sampleUtcNs_, "room", "room_sensor1");
  // As ROS 2's own publishers are seen; with the hash of the message's description.
  for (const char* const line :
       {"participant enclave=/;\n",
        "writer rt/room/sensor1/pose geometry_msgs::msg::dds_::PoseStamped_ reliable volatile "
        "typehash="
        "RIHS01_10f3786d7d40fd2b54367835614bff85d4ad3b5dab62bf8bca0cc232d73b4cd8;\n",
        "writer rt/tf tf2_msgs::msg::dds_::TFMessage_ reliable volatile typehash="
        "RIHS01_e369d0f05a23ae52508854b66f6aa0437f3449d652e8cbf22d5abe85d020f087;\n"}) {
    EXPECT_TRUE(pose.process().ExpectOutput(line)) << line << pose.text();
  }
  EXPECT_EQ(pose.text().find("sensor2"), std::string::npos);  // never seen by the device: no topic
}

TEST_F(Ros2, OnceEndsWhenAFrameHasArrived) {
  Listener listener("rt/lab/left/head/pose", kPoseType, "reliable");
  ASSERT_TRUE(listener.process().ExpectOutput("ready"));
  const auto bridge = Start({"--once", "ros2?sensors=1&name=head&prefix=lab/left&frame=map&tf=no"});
  ASSERT_TRUE(PublishUntil([&] { return bridge->Wait(std::chrono::milliseconds(1)) == 0; }))
      << bridge->error();
  ASSERT_TRUE(WaitUntil([&] { return listener.Count() > 0; }));
  ExpectKnownPose(Decode("pose", listener.Newest()), sampleUtcNs_, "map", "-");
}

TEST_F(Ros2, ADryRunPrintsWhatWouldBeSent) {
  const auto bridge = Start({"--dry-run", "--once", Output("room")});
  ASSERT_TRUE(PublishUntil([&] { return bridge->Wait(std::chrono::milliseconds(1)) == 0; }));
  const std::string pose =
      " position 0.500000 0.250000 -2.000000 orientation 0.000000 0.000000 -0.600000 0.800000\n";
  const std::string& text = bridge->output();
  EXPECT_EQ(text.find("/room/sensor1/pose room "), 0U) << text;
  EXPECT_NE(text.find("/tf room room_sensor1 "), std::string::npos) << text;
  EXPECT_NE(text.find(pose), text.rfind(pose)) << text;
}

// ---- Many, slow, gone ---------------------------------------------------------------------------

// x of the message's first sensor, if the frame is "room".
double XOf(const std::string& kind, const std::string& hex) {
  // Behind the encapsulation: stamp and frame; or count, stamp, frame and child frame.
  const std::size_t at = 2 * (4 + (kind == "pose" ? 24 : 48));
  std::uint64_t bits = 0;
  for (std::size_t i = 8; hex.size() >= at + 16 && i-- > 0;) {
    bits = bits << 8 | std::stoul(hex.substr(at + 2 * i, 2), nullptr, 16);
  }
  return std::bit_cast<double>(bits);
}

// KiB; what 1500 poses take is more. The sanitizer keeps freed memory.
#if defined(__SANITIZE_ADDRESS__)
constexpr long kMemoryRise = 65536;
#else
constexpr long kMemoryRise = 512;
#endif

long MemoryOf(pid_t process) {  // KiB
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::atol(line.c_str() + 6);
  }
  return 0;
}

// With as many sensors as there may be, since long messages fill what a writer keeps.
TEST_F(Ros2, StoppedSubscribersHoldUpNobodyAndGetNoQueue) {
  struct Subscriber {
    std::string kind;
    std::unique_ptr<Listener> listener;
    bool stopped = false;
    std::size_t before = 0;  // messages
  };
  std::vector<Subscriber> all;
  while (all.size() < 8) all.push_back({"pose", ListenToPose(), all.empty()});
  while (all.size() < 10) {
    all.push_back(
        {"tf", std::make_unique<Listener>("rt/tf", kTransformsType, "reliable"), all.size() == 8});
  }
  const auto bridge = Start();
  double x = 0;
  const auto publish = [&](int count) {
    for (int i = 0; i < count; ++i) {
      tracker_->Publish(++x, 31, 1);
      SleepFor(Milliseconds(2));
      for (const auto& each : all) each.listener->Count();  // so that no pipe is full
    }
  };
  const auto haveNewest = [&](bool alsoStopped) {
    return std::ranges::all_of(all, [&](const Subscriber& each) {
      return (each.stopped && !alsoStopped) || XOf(each.kind, each.listener->Newest()) == x;
    });
  };
  ASSERT_TRUE(WaitUntil([&] { return publish(1), haveNewest(true); })) << bridge->error();
  publish(300);
  ASSERT_TRUE(WaitUntil([&] { return haveNewest(true); }));

  const long memory = MemoryOf(bridge->pid());
  for (Subscriber& each : all) {
    each.before = each.listener->Count();
    if (each.stopped) each.listener->process().Signal(SIGSTOP);
  }
  constexpr int kWhileStopped = 1500;
  publish(kWhileStopped);
  EXPECT_TRUE(WaitUntil([&] { return haveNewest(false); }));
  for (const Subscriber& each : all) {
    if (!each.stopped) {
      EXPECT_GT(each.listener->Count(), each.before + kWhileStopped * 9 / 10) << each.kind;
    }
  }
  EXPECT_LT(MemoryOf(bridge->pid()), memory + kMemoryRise) << bridge->error();

  for (const Subscriber& each : all) each.listener->process().Signal(SIGCONT);
  EXPECT_TRUE(WaitUntil([&] { return publish(1), haveNewest(true); }));
  for (const Subscriber& each : all) {
    // What its own socket held, and the last ones of the bridge.
    if (each.stopped) {
      EXPECT_LT(each.listener->Count(), each.before + kWhileStopped / 2) << each.kind;
    }
  }
}

TEST_F(Ros2, GoesOnWhenBridgeOrTrackerIsKilledOrSilent) {
  const auto listener = ListenToPose();
  auto bridge = Start();
  ASSERT_TRUE(PublishUntilHeard(*listener)) << bridge->error();
  bridge->Kill();
  bridge = Start();
  EXPECT_TRUE(PublishUntilHeard(*listener)) << bridge->error();

  tracker_->SetState(kinetrel_state_silent, "Check the cable.");
  EXPECT_TRUE(bridge->ExpectError("silent: Check the cable."));
  EXPECT_TRUE(bridge->ExpectError("  0.0 frames/s"));
  const std::size_t heard = listener->Count();
  const std::size_t told = bridge->error().size();
  EXPECT_TRUE(
      WaitUntil([&] { return bridge->error().find("  0.0 frames/s", told) != std::string::npos; }));
  EXPECT_EQ(listener->Count(), heard);  // no stale pose as a new one

  tracker_.reset();
  EXPECT_TRUE(bridge->ExpectError("stopped"));
  OpenTracker();
  EXPECT_TRUE(PublishUntilHeard(*listener)) << bridge->error();
}

TEST_F(Ros2, TwoBridgesAndTwoTrackersShareADomain) {
  const FreeSlot otherSlot;
  KnownTracker other(otherSlot);
  Listener transforms("rt/tf", kTransformsType, "reliable");
  const auto both = StartAlone({"--slot", std::to_string(slot_.slot()), Output("a"), "--slot",
                                std::to_string(otherSlot.slot()), Output("b")});
  const auto again = Start({Output("c") + "&poses=no"});
  std::set<std::string> children;
  EXPECT_TRUE(PublishUntil([&] {
    Publish(other);
    if (transforms.Count() == 0) return false;
    for (const Transform& each : Decode("tf", transforms.Newest())) children.insert(each.child);
    return children.size() == 3;
  })) << both->error()
      << again->error();
  EXPECT_EQ(children, (std::set<std::string>{"a_sensor1", "b_sensor1", "c_sensor1"}));
}

// ---- The network --------------------------------------------------------------------------------

TEST_F(Ros2, ANetworkThatGoesIsToldOnceAndComesBack) {
  const auto listener = ListenToPose();
  const auto bridge = Start();
  ASSERT_TRUE(PublishUntilHeard(*listener)) << bridge->error();
  SetLoopback(false);
  const auto toldOfFailure = [&] {
    int times = 0;
    const std::string& text = bridge->error();
    for (std::size_t at = 0; (at = text.find(" failed ", at)) != std::string::npos; ++at) ++times;
    return times;
  };
  EXPECT_TRUE(PublishUntil([&] { return toldOfFailure() > 0; }));
  for (int i = 0; i < 500; ++i) {
    Publish(*tracker_);
    SleepFor(Milliseconds(1));
  }
  EXPECT_EQ(toldOfFailure(), 1) << bridge->error();
  SetLoopback(true);
  EXPECT_TRUE(PublishUntilHeard(*listener)) << bridge->error();
}

// ROS 2 nodes that are confined to their machine look at the first 33 pairs of ports only.
TEST_F(Ros2, JoinsThoughAllUsualPortsAreTaken) {
  std::vector<int> sockets;
  for (std::uint16_t port = 7410; port <= 7411 + 2 * 32; ++port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    sockets.push_back(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(sockets.back(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
        << port;
  }
  const auto listener = ListenToPose("best-effort");
  const auto bridge = Start();
  EXPECT_TRUE(PublishUntilHeard(*listener)) << bridge->error() << listener->text();
  for (const int socket : sockets) ::close(socket);
}

TEST_F(Ros2, DomainAndRangeComeFromTheEnvironment) {
  const auto confined = Start({}, {{"ROS_AUTOMATIC_DISCOVERY_RANGE", "LOCALHOST"}});
  ASSERT_TRUE(confined->ExpectError("domain 0 "));
  std::stringstream groups;
  groups << std::ifstream("/proc/self/net/igmp").rdbuf();
  EXPECT_EQ(groups.str().find("0100FFEF"), std::string::npos) << groups.str();  // DDS's 239.255.0.1
  Listener neighbour({"rt/room/sensor1/pose", kPoseType, "reliable", "confined"});
  EXPECT_TRUE(PublishUntilHeard(neighbour)) << confined->error();

  // Of two bridges with one topic, each subscriber hears the one in its own domain.
  const Strings topic = {"rt/other/sensor1/pose", kPoseType, "reliable"};
  Listener near(topic);
  Listener far(topic, "101");
  const auto bridgeNear = Start({Output("other") + "&frame=near"});
  const auto bridgeFar = Start({Output("other") + "&frame=far"}, {{"ROS_DOMAIN_ID", "101"}});
  EXPECT_TRUE(PublishUntil([&] { return near.Count() > 5 && far.Count() > 5; }))
      << bridgeNear->error() << bridgeFar->error();
  const std::string_view nearInHex = "6e656172";
  const std::string_view farInHex = "666172";
  EXPECT_NE(near.text().find(nearInHex), std::string::npos);
  EXPECT_EQ(near.text().find(farInHex), std::string::npos);
  EXPECT_NE(far.text().find(farInHex), std::string::npos);
  EXPECT_EQ(far.text().find(nearInHex), std::string::npos);
}

// ---- What is refused ----------------------------------------------------------------------------

TEST_F(Ros2, WhatItCannotDoIsOneLineAndCode2AtStart) {
  struct Row {
    Strings arguments;
    Environment environment;
    const char* complaint;
  };
  const std::vector<Row> rows = {
      {{}, {{"ROS_DOMAIN_ID", "one"}}, "a number from 0 to 232, not one"},
      {{}, {{"ROS_DOMAIN_ID", "233"}}, "a number from 0 to 232, not 233"},
      {{}, {{"ROS_AUTOMATIC_DISCOVERY_RANGE", "OFF"}}, "is OFF"},
      {{}, {{"CYCLONEDDS_URI", "<Nonsense"}}, "domain 0 cannot be joined"},
      {{"vrpn"}, {}, "unknown protocol vrpn"},
      {{"ros2://10.0.0.1:7400"}, {}, "takes no address"},
      {{"ros2?prefix=a//b"}, {}, "ROS names hold"},
      {{"ros2?sensors=1&name=left-hand"}, {}, "a ROS name holds"},
      {{"ros2?frame=/map"}, {}, "frames hold"},
      {{"ros2", "ros2"}, {}, "has /kinetrel/sensor1/pose already"},
      {{"ros2?domain=1", "ros2?domain=2&prefix=b"}, {}, "the same for all trackers"},
      {{"ros2?tf=no&poses=no"}, {}, "nothing is sent"},
  };
  for (const Row& row : rows) {
    ChildProcess bridge("kinetrel-bridge-ros2", row.arguments, {.environment = row.environment});
    EXPECT_EQ(bridge.Wait(), 2) << row.complaint;
    EXPECT_NE(bridge.error().find(row.complaint), std::string::npos) << bridge.error();
    EXPECT_EQ(bridge.error().find('\n'), bridge.error().size() - 1) << bridge.error();
  }
}

}  // namespace
}  // namespace kinetrel::test

// kinetrel-bridge and what Linux does with a process: stopped, continued, asked to end.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bridge/freed.h"
#include "bridge/opentrack.h"
#include "bridge/opentrackio.h"
#include "bridge/osc.h"
#include "bridge/posistagenet.h"
#include "bridge/text.h"
#include "platform/datagram_socket.h"
#include "tests/bridge/bridge_run.h"
#include "tests/bridge/vrpn_client.h"

namespace kinetrel::test {
namespace {

// Stops the process, and waits until each of its threads stands still.
void Stop(const ChildProcess& process) {
  process.Signal(SIGSTOP);
  EXPECT_TRUE(WaitUntil([&] {
    const std::filesystem::path tasks = "/proc/" + std::to_string(process.pid()) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
      std::string words;
      std::getline(std::ifstream(task.path() / "stat"), words);
      if (words.find(") T ") == std::string::npos) return false;
    }
    return true;
  }));
}

class BridgeProcess : public BridgeRun {
 protected:
  void SetUp() override {
    OpenTracker();
    const std::uint16_t port = FreePort();
    bridge_ = Start({"vrpn://127.0.0.1:" + std::to_string(port), "--status", "1"});
    ASSERT_TRUE(ExpectRunning(*bridge_)) << bridge_->error();
    client_ = std::make_unique<VrpnTestClient>(port);
    ASSERT_TRUE(WaitUntil([&] {
      tracker_->Publish(-1);
      client_->Hear();
      return !client_->ear.heard.empty() && client_->ear.heard.back().type == kVrpnPose;
    }));
  }

  std::unique_ptr<ChildProcess> bridge_;
  std::unique_ptr<VrpnTestClient> client_;
};

TEST_F(BridgeProcess, ContinuedAfterAStopSendsTheNewestAndNoQueue) {
  Stop(*bridge_);
  const std::int64_t begin = kinetrel_now_ns();
  int published = 0;
  while (kinetrel_now_ns() - begin < 1500000000) {  // the stop is long: this is what is tested
    tracker_->Publish(++published, 4);
    SleepFor(Milliseconds(4));
  }
  ASSERT_GT(published, 50);
  client_->Hear();
  client_->ear.heard.clear();
  bridge_->Signal(SIGCONT);
  int old = 0;
  for (double x = 0; x != published;) {
    const auto pose = client_->Next(kVrpnPose);
    ASSERT_TRUE(pose.has_value());
    x = pose->F64(8);
    if (x != published) ++old;
  }
  EXPECT_LE(old, 8);  // a frame or two that it held when it was stopped
  EXPECT_TRUE(bridge_->ExpectError(" records skipped"));
}

TEST_F(BridgeProcess, ContinuedWhenTheTrackerIsLostSendsNoOldPose) {
  Stop(*bridge_);
  tracker_->Publish(5);
  const std::int64_t begin = kinetrel_now_ns();
  tracker_->SetState(kinetrel_state_recovering, "Check the cable.");
  while (kinetrel_now_ns() - begin < 500000000) SleepFor(Milliseconds(10));  // the record grows old
  client_->Hear();
  client_->ear.heard.clear();
  bridge_->Signal(SIGCONT);
  ASSERT_TRUE(bridge_->ExpectError(": recovering: "));
  tracker_->SetState(kinetrel_state_running, "All is well.");
  std::optional<VrpnHeard> pose;
  ASSERT_TRUE(WaitUntil([&] {
    tracker_->Publish(6);
    return (pose = client_->Next(kVrpnPose)).has_value();
  }));
  EXPECT_EQ(pose->F64(8), 6);
}

TEST_F(BridgeProcess, TellsOfATrackerThatIsKilledAndGoesOnWithTheNext) {
  tracker_.reset();
  const auto killed = std::make_unique<ChildProcess>("kinetrel", Simulated(slot_));
  std::optional<VrpnHeard> pose;
  do {
    pose = client_->Next(kVrpnPose);
    ASSERT_TRUE(pose.has_value());
  } while (pose->F64(8) == -1);  // of the tracker before
  killed->Kill();
  EXPECT_TRUE(bridge_->ExpectError(": lost: "));
  do {
    const auto warning = client_->Next("vrpn_Base text_message");
    ASSERT_TRUE(warning.has_value());
    if (warning->Text(8).starts_with("tracker lost: ")) break;
  } while (true);
  client_->ear.heard.clear();
  const ChildProcess next("kinetrel", Simulated(slot_));
  EXPECT_TRUE(client_->Next(kVrpnPose).has_value());
}

TEST_F(BridgeProcess, KeepsTheNamesOfTwoTrackersApart) {
  const FreeSlot other;
  KnownTracker second(other);
  const std::string number = std::to_string(other.slot());
  const auto both = Start({"osc:///vmc", "--dry-run", "--slot", number, "osc:///vmc"});
  // Slot 1 keeps the names that it has alone.
  const std::string name = other.slot() == 1 ? "kinetrel-1" : "kinetrel-" + number + "-1";
  EXPECT_TRUE(WaitUntil([&] {
    second.Publish(1);
    return both->output().find('"' + name + '"') != std::string::npos;
  })) << both->error();
}

// ---- Every output of datagrams
// -------------------------------------------------------------------

std::string DescribeText(std::span<const std::byte> packet) {
  return std::string(bridge::AsText(packet));
}

// One output that sends sensor 1 to a port of its own.
struct DatagramOutput {
  std::string before;  // the port
  std::string after;
  std::string (*describe)(std::span<const std::byte>);
  std::string (*wordsOf)(double x);  // that a packet has which holds the pose at x
  DatagramSocket receiver = std::move(*DatagramSocket::Open(0));

  std::string Text() const {
    return before + "://127.0.0.1:" + std::to_string(receiver.port()) + after;
  }
  // Takes a packet that waits, as text.
  std::optional<std::string> Take() {
    std::array<std::byte, 2000> into;
    const auto size = receiver.Receive(into);
    if (!size.Ok()) return {};
    return describe(std::span(into).first(*size));
  }
};

class Datagrams : public BridgeRun {
 protected:
  void SetUp() override {
    OpenTracker();
    using bridge::Fixed;
    const auto unity = [](double x) { return " -2.000000 " + Fixed(x, 6); };
    Add("osc", "?sensors=1", bridge::DescribeOsc, [](double x) { return "pose " + Fixed(x, 6); });
    Add("osc", "/vrchat?sensors=1", bridge::DescribeOsc, unity);
    Add("osc", "/vmc?sensors=1", bridge::DescribeOsc, unity);
    Add("osc", "/adm?extent=4,4,4&sensors=1", bridge::DescribeOsc,
        [](double x) { return " " + Fixed(x / 4, 6) + " -0.5"; });
    Add("freed", "?sensors=1", bridge::DescribeFreeD,
        [](double x) { return " y " + Fixed(1000 * x, 2); });
    Add("opentrack", "?sensors=1", bridge::DescribeOpentrack,
        [](double x) { return " TZ " + Fixed(-100 * x, 4); });
    Add("psn", "?sensors=1", bridge::DescribePsn,
        [](double x) { return ", -2.000000, " + Fixed(x, 6); });
    Add("dtrack", "?sensors=1", DescribeText, [](double x) { return "[" + Fixed(1000 * x, 3); });
    Add("opentrackio", "?sensors=1", bridge::DescribeOpenTrackIo,
        [](double x) { return "\"y\":" + Fixed(x, 3) + ","; });
    Strings arguments;
    for (const DatagramOutput& each : outputs_) arguments.push_back(each.Text());
    bridge_ = Start(std::move(arguments));
    ASSERT_TRUE(ExpectRunning(*bridge_)) << bridge_->error();
    for (DatagramOutput& each : outputs_) {
      ASSERT_TRUE(WaitUntil([&] { return tracker_->Publish(-1), each.Take().has_value(); }))
          << each.Text();
    }
  }

  void Add(const char* before, const char* after,
           std::string (*describe)(std::span<const std::byte>), std::string (*wordsOf)(double)) {
    outputs_.push_back({before, after, describe, wordsOf});
  }

  void Drain() {
    for (DatagramOutput& each : outputs_) {
      while (each.Take()) {
      }
    }
  }

  // Waits until each output has sent the pose at x. Returns how many packets with another pose at
  // most came before it.
  int AwaitPose(double x) {
    int most = 0;
    for (DatagramOutput& each : outputs_) {
      int others = 0;
      EXPECT_TRUE(WaitUntil([&] {
        const auto text = each.Take();
        if (text && text->find(each.wordsOf(x)) != std::string::npos) return true;
        if (text) ++others;
        return false;
      })) << each.Text();
      most = std::max(most, others);
    }
    return most;
  }

  std::vector<DatagramOutput> outputs_;
  std::unique_ptr<ChildProcess> bridge_;
};

// So long that the writer has gone round its ring.
TEST_F(Datagrams, AfterAStopOfFiveSecondsTheNewestGoesOutAndNoQueue) {
  Stop(*bridge_);
  const std::int64_t begin = kinetrel_now_ns();
  int published = 0;
  while (kinetrel_now_ns() - begin < 5'000'000'000 || published % 10 == 0) {
    tracker_->Publish(++published * 0.001, kinetrel_stream_sensors);
    SleepFor(Milliseconds(4));
  }
  ASSERT_GT(published, 600);  // more records than the ring holds
  Drain();
  bridge_->Signal(SIGCONT);
  // What it held when it was stopped, and two packets a frame of VRChat.
  EXPECT_LE(AwaitPose(published * 0.001), 16);
}

TEST_F(Datagrams, NoPoseOfALostTrackerGoesOutAsNew) {
  Stop(*bridge_);
  tracker_->Publish(0.777);
  const std::int64_t begin = kinetrel_now_ns();
  tracker_->SetState(kinetrel_state_recovering, "Check the cable.");
  while (kinetrel_now_ns() - begin < 500'000'000) SleepFor(Milliseconds(10));  // it grows old
  Drain();
  bridge_->Signal(SIGCONT);
  ASSERT_TRUE(bridge_->ExpectError(": recovering: "));
  tracker_->SetState(kinetrel_state_running, "All is well.");
  ASSERT_TRUE(WaitUntil([&] {
    return tracker_->Publish(0.888), bridge_->error().ends_with(": running\n");
  })) << bridge_->error();
  tracker_->Publish(0.889);
  for (DatagramOutput& each : outputs_) {
    std::string all;
    EXPECT_TRUE(WaitUntil([&] {
      tracker_->Publish(0.889);
      all += each.Take().value_or("");
      return all.find(each.wordsOf(0.889)) != std::string::npos;
    })) << each.Text();
    EXPECT_EQ(all.find(each.wordsOf(0.777)), std::string::npos) << all;
  }
}

TEST_F(BridgeProcess, EndsWhenAskedAndFreesItsPort) {
  bridge_->Signal(SIGTERM);
  EXPECT_EQ(bridge_->Wait(), 0);
  EXPECT_TRUE(client_->ExpectClosed());
  EXPECT_EQ(bridge_->output(), "");
}

}  // namespace
}  // namespace kinetrel::test

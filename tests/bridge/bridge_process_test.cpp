// kinetrel-bridge and what Linux does with a process: stopped, continued, asked to end.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>

#include "tests/bridge/bridge_run.h"
#include "tests/bridge/vrpn_client.h"

namespace kinetrel::test {
namespace {

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
  bridge_->Signal(SIGSTOP);
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
  bridge_->Signal(SIGSTOP);
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
  EXPECT_TRUE(WaitUntil([&] {
    second.Publish(1);
    return both->output().find("kinetrel-" + number + "-1") != std::string::npos;
  })) << both->error();
}

TEST_F(BridgeProcess, EndsWhenAskedAndFreesItsPort) {
  bridge_->Signal(SIGTERM);
  EXPECT_EQ(bridge_->Wait(), 0);
  EXPECT_TRUE(client_->ExpectClosed());
  EXPECT_EQ(bridge_->output(), "");
}

}  // namespace
}  // namespace kinetrel::test

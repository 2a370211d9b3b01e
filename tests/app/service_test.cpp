// Several machines, simulated by processes on this one: services with the simulated tracker, and
// programs that follow them.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <optional>
#include <set>

#include "platform/stream_socket.h"
#include "publish/shared_track_reader.h"
#include "rpc/track_client.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// All of 127.x.y.z is loopback: each process has an address of its own, so all can use one port.
std::string OwnAddress(int index) {
  const int pid = ::getpid();
  return "127." + std::to_string(32 * (index + 1) + (pid >> 16 & 31)) + '.' +
         std::to_string(pid >> 8 & 255) + '.' + std::to_string(pid & 255);
}

struct Machine {
  FreeSlot slot;
  std::string address;
  std::optional<ChildProcess> program;
  std::optional<SharedTrackReader> reader;

  explicit Machine(int index) : address(OwnAddress(index)) { reader.emplace(slot.device()); }

  std::string Key() const { return address + ':' + std::to_string(slot.device()) + ", 0, 0"; }
  bool Copy(SharedTrackBlock& block) {
    return (reader->block() != nullptr || reader->OpenOnly(0)) &&
           reader->Copy(block, Milliseconds(1000));
  }
  int Frames() {
    SharedTrackBlock block{};
    return Copy(block) ? block.frameCount : 0;
  }
  bool Advances(int frames) {
    const int before = Frames();
    return WaitUntil([&] { return Frames() >= before + frames || Frames() < before; });
  }
  // No new frame for a while.
  bool StandsStill() {
    return WaitUntil([&] {
      const int before = Frames();
      SleepFor(Milliseconds(500));
      return Frames() == before;
    });
  }
};

class Machines : public testing::Test {
 protected:
  using Arguments = std::vector<std::string>;

  void Serve(Machine& machine, Arguments tracker, const std::string& follows = "") {
    tracker.insert(tracker.end(),
                   {"--listen", machine.address, "-w" + std::to_string(machine.slot.slot())});
    Start(machine, "kinetrel-service", tracker, follows);
    ASSERT_TRUE(machine.program->ExpectError(": ready.")) << machine.program->error();
  }
  void Follow(Machine& machine, const std::string& follows) {
    Start(machine, "kinetrel", {"-d11", "-w" + std::to_string(machine.slot.slot())}, follows);
    ASSERT_TRUE(machine.program->ExpectError("Running ...")) << machine.program->error();
  }
  void Start(Machine& machine, const std::string& program, const Arguments& arguments,
             const std::string& follows) {
    ChildProcess::Options options{.emptyInput = true};
    if (!follows.empty()) options.environment = {{"KINETREL_RELAY", follows}};
    machine.program.emplace(program, arguments, options);
  }

  // Whether `follower` publishes several times exactly what `source` has published.
  static bool ShowsTheSame(Machine& source, Machine& follower) {
    std::set<float> original, shown;
    SharedTrackBlock block{};
    return WaitUntil([&] {
      if (source.Copy(block)) original.insert(block.poses[0][3]);
      if (follower.Copy(block) && block.frameCount > 0) shown.insert(block.poses[0][3]);
      int common = 0;
      for (const float yaw : shown) common += original.count(yaw) > 0 ? 1 : 0;
      return common >= 5;
    });
  }

  const Arguments simulated_ = {"-d8", "-z-"};
  Machine source_{0}, relay_{1};
};

TEST_F(Machines, AFollowerShowsTheSourcesAngles) {
  Serve(source_, simulated_);
  Follow(relay_, source_.Key());
  EXPECT_TRUE(ShowsTheSame(source_, relay_));
  SharedTrackBlock block{};
  ASSERT_TRUE(relay_.Copy(block));
  EXPECT_EQ(DeviceNameOf(block), "Mts Relay");
  EXPECT_EQ(block.poses[0][0], 0.0F);  // positions are not relayed
  relay_.program->Signal(SIGTERM);
  source_.program->Signal(SIGTERM);
  EXPECT_EQ(relay_.program->Wait(), 0);
  EXPECT_EQ(source_.program->Wait(), 0);
}

TEST_F(Machines, FollowEachOtherInAChain) {
  Machine last(2);
  Serve(source_, simulated_);
  Serve(relay_, {"-d11"}, source_.Key());
  Follow(last, relay_.Key());
  EXPECT_TRUE(ShowsTheSame(source_, last));
}

TEST_F(Machines, ARelayFollowsARestartedService) {
  Follow(relay_, source_.Key());  // which does not run yet
  ASSERT_TRUE(relay_.program->ExpectError("Sample: Unable to find an MtsService at "));
  for (int round = 0; round < 2; ++round) {
    Serve(source_, simulated_);
    ASSERT_TRUE(ShowsTheSame(source_, relay_)) << round;
    source_.program->Kill();
    ASSERT_TRUE(relay_.StandsStill());
  }
  EXPECT_EQ(relay_.program->Wait(milliseconds(1)), ChildProcess::kStillRuns);
}

TEST_F(Machines, AStoppedServiceDoesNotBlockTheRelay) {
  Serve(source_, simulated_);
  Follow(relay_, source_.Key());
  ASSERT_TRUE(relay_.Advances(5));
  source_.program->Signal(SIGSTOP);
  ASSERT_TRUE(relay_.StandsStill());
  source_.program->Signal(SIGCONT);
  EXPECT_TRUE(ShowsTheSame(source_, relay_));

  source_.program->Signal(SIGSTOP);
  ASSERT_TRUE(relay_.StandsStill());
  const auto start = steady_clock::now();
  relay_.program->Signal(SIGTERM);
  EXPECT_EQ(relay_.program->Wait(), 0);
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(kSanitized ? 6 : 3));
}

TEST_F(Machines, ASecondServiceAndABadAddressAreRefusedAtOnce) {
  Serve(source_, simulated_);
  ChildProcess second("kinetrel-service", {"--listen", source_.address, "-d8"});
  EXPECT_TRUE(second.ExpectError("Cannot serve on " + source_.address + ", port 5437"));
  EXPECT_EQ(second.Wait(), 256 - 3);
  ChildProcess odd("kinetrel-service", {"--listen", "127.0.0.1:x", "-d8"});
  EXPECT_TRUE(odd.ExpectError("--listen wants ADDRESS, ADDRESS:PORT or :PORT"));
  EXPECT_EQ(odd.Wait(), 256 - 1);
  // Options are checked before the address is taken.
  ChildProcess third("kinetrel-service", {"--listen", source_.address, "-d"});
  EXPECT_EQ(third.Wait(), 256 - 1) << third.error();
}

// The steered sensor has no frame before the first key, so the service has no pose to answer with.
TEST_F(Machines, AServiceIsReadyOnceItHasAPose) {
  ChildProcess service("kinetrel-service", {"--listen", source_.address, "-d8", "-z-", "-s0x8",
                                            "-w" + std::to_string(source_.slot.slot())});
  ASSERT_TRUE(service.ExpectError("Running ..."));
  EXPECT_FALSE(service.ExpectError(": ready.", std::chrono::milliseconds(700)));
  service.Send("+");
  EXPECT_TRUE(service.ExpectError(": ready."));
  rpc::RpcTrackClient client;
  ASSERT_EQ(client.Bind(source_.address), rpc::CallResult::Success);
  std::array<float, 3> angles{};
  EXPECT_EQ(client.GetAngles({{source_.slot.device(), 0, 3}, -1, 2, 3}, angles),
            rpc::CallResult::Success);
  service.Send("\x1b");
  EXPECT_EQ(service.Wait(), 0);
}

TEST_F(Machines, AServiceRefusesUnknownRequests) {
  Serve(source_, simulated_);
  rpc::RpcTrackClient client;
  ASSERT_EQ(client.Bind(source_.address), rpc::CallResult::Success);
  const rpc::TrackKey here = {source_.slot.device(), 0, 0};
  std::int32_t engine = 0, sensor = -1, units = -1;
  std::array<float, 3> angles{};
  EXPECT_EQ(client.GetMapping({here[0], 0, 7}, engine, sensor), rpc::CallResult::ReturnedFalse);
  ASSERT_EQ(client.GetMapping(here, engine, sensor), rpc::CallResult::Success);
  EXPECT_EQ(sensor, 0);
  EXPECT_EQ(client.GetAttribute({engine, 5}, units), rpc::CallResult::Success);
  EXPECT_EQ(units, 1);
  EXPECT_EQ(client.GetAttribute({engine + 1, 5}, units), rpc::CallResult::ReturnedFalse);
  EXPECT_EQ(client.GetAttribute({engine, 99}, units), rpc::CallResult::ReturnedFalse);
  EXPECT_TRUE(WaitUntil([&] {
    return client.GetAngles({here, -1, 2, 3}, angles) == rpc::CallResult::Success;
  }));
  EXPECT_EQ(client.GetAngles({here, 0, 2, 3}, angles), rpc::CallResult::ReturnedFalse);
  EXPECT_EQ(client.GetAngles({here, -1, 77, 3}, angles), rpc::CallResult::ReturnedFalse);
}

}  // namespace
}  // namespace kinetrel::test

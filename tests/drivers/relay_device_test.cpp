// The relay against a real service on loopback that stops, restarts, hangs and sends odd values.
#include "drivers/relay_device.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>

#include "rpc/track_server.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/child_process.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

using std::chrono::steady_clock;

class Source final : public rpc::TrackProcedures {
 public:
  rpc::MappingReply GetMapping(const rpc::TrackKey& key) override {
    ++lookups;
    return {key == rpc::TrackKey{1, 2, 3} && present, 1, 4};
  }
  rpc::AttributeReply GetAttribute(const rpc::AttributeArguments& arguments) override {
    return {arguments.engine == 1 && arguments.id == 5, 3};
  }
  bool GetFloats(const rpc::FloatsArguments& arguments, std::span<float> values) override {
    ++fetches;
    while (hangs && !released) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (arguments.filter != -1 || arguments.id != 2 || values.size() != 3) return false;
    values[0] = angle;
    values[1] = -0.5F;
    values[2] = 2.75F;
    return present;
  }
  std::atomic<bool> present = true, hangs = false, released = false;
  std::atomic<float> angle = 11.25F;
  std::atomic<int> lookups = 0, fetches = 0;
};

class Relay : public testing::Test {
 protected:
  void SetUp() override {
    Serve();
    port_ = server_->port();
    relay_.emplace(port_);
    relay_->SetStatusLog(&log_);
    ASSERT_TRUE(relay_->SetControlString("127.0.0.1:1, 2, 3"));
    ASSERT_EQ(relay_->OpenPort("COM1", 9600), 1);
    ASSERT_EQ(relay_->Boot(0), kBooted);
  }
  ~Relay() override { source_.released = true; }

  void Serve() {
    auto listener = StreamListener::Open("127.0.0.1", port_);
    ASSERT_TRUE(listener.Ok());
    server_.emplace(std::move(*listener), source_);
    ASSERT_TRUE(server_->Start().Ok());
  }
  bool Follows() {
    return WaitUntil([&] { return relay_->ReadFrame(nullptr) == 1; });
  }
  int Logged(const std::string& text) {
    int count = 0;
    for (const StatusEntry& entry : log_.Entries()) count += entry.text == text ? 1 : 0;
    return count;
  }
  std::string Address(const char* format) {
    char text[128];
    std::snprintf(text, sizeof text, format, "127.0.0.1");
    return text;
  }

  StatusLog log_;
  Source source_;
  std::uint16_t port_ = 0;
  std::optional<rpc::TrackServer> server_;
  std::optional<RelayDevice> relay_;
};

TEST_F(Relay, DeliversOnlyTheAngles) {
  float* const pose = relay_->GetSensorPose(0);
  std::fill_n(pose, 6, 7.0F);
  double when = 0;
  ASSERT_EQ(relay_->ReadFrame(&when), 1U);
  EXPECT_GT(when, 0.0);
  EXPECT_EQ((std::array{pose[0], pose[1], pose[2]}), (std::array{7.0F, 7.0F, 7.0F}));
  EXPECT_EQ((std::array{pose[3], pose[4], pose[5]}), (std::array{11.25F, -0.5F, 2.75F}));
  EXPECT_EQ(relay_->GetUnits(), 3);
  EXPECT_STREQ(relay_->GetDeviceName(), "Mts Relay");
  EXPECT_EQ(relay_->GetStatusCode(), 11);
  EXPECT_FALSE(relay_->IsBooted());
}

TEST_F(Relay, KeepsItsConnectionAndAllocatesNothing) {
  ASSERT_TRUE(Follows());
  const int lookups = source_.lookups;
  const auto start = steady_clock::now();
  const auto readAll = [this] {
    for (unsigned i = 0; i < RelayDevice::kCheckInterval; ++i) relay_->ReadFrame(nullptr);
  };
  EXPECT_EQ(AllocationsOf(readAll), 0);
  const auto time = steady_clock::now() - start;
  EXPECT_EQ(source_.lookups, lookups + 1);  // one check in kCheckInterval frames
  EXPECT_EQ(server_->clients(), 1U);
  EXPECT_GE(time, std::chrono::milliseconds(8) * (RelayDevice::kCheckInterval - 10));
}

TEST_F(Relay, FollowsAServiceThatComesBack) {
  ASSERT_TRUE(Follows());
  for (int round = 0; round < 2; ++round) {
    server_.reset();
    ASSERT_TRUE(WaitUntil([&] {
      return relay_->ReadFrame(nullptr) == 0 &&
             Logged(Address("Sample: Unable to find an MtsService at %s")) == round + 1;
    }));
    const auto start = steady_clock::now();
    while (steady_clock::now() - start < std::chrono::milliseconds(2200)) {
      EXPECT_EQ(relay_->ReadFrame(nullptr), 0U);
      SleepFor(Milliseconds(20));
    }
    // Reported once, although the relay tried several times.
    EXPECT_EQ(Logged(Address("Sample: Unable to find an MtsService at %s")), round + 1);
    source_.angle = static_cast<float>(round);
    Serve();
    ASSERT_TRUE(Follows());
    EXPECT_EQ(relay_->GetSensorEuler(0)[0], static_cast<float>(round));
    EXPECT_EQ(Logged(Address("MtsService at %s delivers the mapping.")), round + 1);
  }
}

TEST_F(Relay, ReportsAMissingMappingAndWaitsForIt) {
  ASSERT_TRUE(Follows());
  source_.present = false;
  const std::string missing = Address("Sample: MtsService at %s dosn't have mapping (1, 2, 3)");
  ASSERT_TRUE(WaitUntil([&] { return relay_->ReadFrame(nullptr) == 0 && Logged(missing) > 0; }));
  const int lookups = source_.lookups;
  for (int i = 0; i < 50; ++i) relay_->ReadFrame(nullptr);
  EXPECT_LE(source_.lookups, lookups + 2);  // the relay asks only now and then
  EXPECT_EQ(Logged(missing), 1);
  EXPECT_EQ(relay_->GetSensorEuler(0)[0], 11.25F);  // unchanged
  source_.present = true;
  EXPECT_TRUE(Follows());
}

TEST_F(Relay, IgnoresAnglesThatAreNotFinite) {
  ASSERT_TRUE(Follows());
  for (const float odd : {std::nanf(""), std::numeric_limits<float>::infinity()}) {
    source_.angle = odd;
    EXPECT_EQ(relay_->ReadFrame(nullptr), 0U);
    EXPECT_EQ(relay_->GetSensorEuler(0)[0], 11.25F);
  }
  source_.angle = 1.0F;
  EXPECT_EQ(relay_->ReadFrame(nullptr), 1U);
}

TEST(RelayControlString, NamesHostAndMapping) {
  struct Row {
    const char* text;
    const char* becomes;  // null: refused
  };
  const Row rows[] = {
      {"remotepc:1, 2, 3", "remotepc:1, 2, 3"},
      {"10.0.0.7:-1,2,\t3", "10.0.0.7:-1, 2, 3"},
      {"remotepc: 1, 2, 3 and more", "remotepc:1, 2, 3"},
      {"remotepc:1 ,2, 3", nullptr},
      {":1, 2, 3", nullptr},
      {"remotepc", nullptr},
      {"remotepc:1, 2", nullptr},
      {"remotepc:1, x, 3", nullptr},
      {"remotepc:1, 2, 99999999999", nullptr},
      {"", nullptr},
  };
  for (const Row& row : rows) {
    StatusLog log;
    RelayDevice relay;
    relay.SetStatusLog(&log);
    char text[64];
    EXPECT_EQ(relay.SetControlString(row.text), row.becomes != nullptr) << row.text;
    EXPECT_TRUE(relay.GetControlString(text, sizeof text));
    EXPECT_STREQ(text, row.becomes != nullptr ? row.becomes : "hostname:0, 0, 0");
    const std::string error = std::string("Error parsing control string: ") + row.text;
    EXPECT_EQ(log.Newest().text, row.becomes != nullptr ? "" : error);
  }
  RelayDevice relay;
  char text[6] = "xxxxx";
  EXPECT_TRUE(relay.GetControlString(text, 5));
  EXPECT_STREQ(text, "host");
  EXPECT_FALSE(relay.GetControlString(text, 0));
  EXPECT_FALSE(relay.GetControlString(nullptr, 5));
  EXPECT_FALSE(relay.SetControlString(nullptr));
}

TEST(RelayControlString, MayComeFromTheEnvironment) {
  StatusLog log;
  RelayDevice quiet;
  quiet.SetStatusLog(&log);
  UnsetVariable("KINETREL_RELAY");
  EXPECT_EQ(quiet.Boot(0), kBooted);
  EXPECT_EQ(log.Entries().size(), 1U);
  EXPECT_NE(log.Newest().text.find("KINETREL_RELAY"), std::string::npos);
  EXPECT_EQ(quiet.ReadFrame(nullptr), 0U);

  SetVariable("KINETREL_RELAY", "remotepc:1, 2, 3");
  RelayDevice told, asked;
  char text[64];
  asked.SetControlString("other:4, 5, 6");
  for (RelayDevice* relay : {&told, &asked}) EXPECT_EQ(relay->Boot(0), kBooted);
  UnsetVariable("KINETREL_RELAY");
  EXPECT_TRUE(told.GetControlString(text, sizeof text));
  EXPECT_STREQ(text, "remotepc:1, 2, 3");
  EXPECT_TRUE(asked.GetControlString(text, sizeof text));
  EXPECT_STREQ(text, "other:4, 5, 6");
}

}  // namespace
}  // namespace kinetrel::test

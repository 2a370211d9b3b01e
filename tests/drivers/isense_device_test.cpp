// The InterSense driver over the substitute library, and its senders on UDP ports.
#include "drivers/isense_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>

#include "tests/support/allocation_counter.h"
#include "tests/support/substitute_settings.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

constexpr float kRadians = 3.14159265F / 180;

using Calls = std::vector<std::string>;

class IsenseDeviceTest : public testing::Test {
 protected:
  // The calls that the library received during `act`.
  template <typename Act>
  Calls CallsOf(Act act) {
    settings_.TakeCalls();
    act();
    return settings_.TakeCalls();
  }

  void Start(int port = 1) {
    ASSERT_EQ(device_.OpenPortNumber(port, 9600), 1);
    ASSERT_EQ(device_.Boot(0), 1);
  }

  bool ReadNext() {
    return WaitUntil([this] { return device_.ReadFrame(nullptr) == 1; });
  }

  // The frame's number, decoded from the yaw, which grows by a quarter of a degree per frame.
  int Frame() {
    return static_cast<int>(std::lround((180 - device_.GetSensorPose(0)[3] / kRadians) * 4)) % 1440;
  }

  IsenseSettings settings_;
  IsenseDevice device_;
};

struct Model {
  int model;
  int type;
  const char* name;
  unsigned components;
  int sensors;
  int rate;
};

class IsenseModels : public IsenseDeviceTest, public testing::WithParamInterface<Model> {};

TEST_P(IsenseModels, AreSetUpByBoot) {
  const Model& model = GetParam();
  settings_.Set("MODEL", std::to_string(model.model));
  Start();
  EXPECT_TRUE(device_.IsBooted());
  EXPECT_EQ(device_.GetDeviceType(nullptr, 0), model.type);
  EXPECT_STREQ(device_.GetDeviceName(), model.name);
  EXPECT_EQ(device_.GetComponentMask(), model.components);
  EXPECT_EQ(device_.GetSensorCount(), model.sensors);
  EXPECT_EQ(device_.GetFrameRate(), model.rate);
  EXPECT_EQ(device_.GetStatusCode(), 0x602);
  EXPECT_EQ(device_.SetSensorMask(3, 0), 3U);
  EXPECT_EQ(device_.GetFrameRate(), model.sensors == 1 ? model.rate : model.rate / 2);
}

INSTANTIATE_TEST_SUITE_P(All, IsenseModels,
                         testing::Values(Model{1, 14, "InterSense 300", 2, 4, 150},
                                         Model{2, 13, "InterSense 600", 3, 4, 180},
                                         Model{3, 18, "InterSense DLL", 2, 1, 180},
                                         Model{4, 15, "InterSense InterTrax", 2, 1, 256},
                                         Model{7, 15, "InterSense InterTrax", 2, 1, 256},
                                         Model{8, 19, "InterSense InertiCube2", 2, 1, 120},
                                         Model{9, 19, "InterSense InertiCube2", 2, 1, 120},
                                         Model{10, 18, "InterSense DLL", 2, 1, 120},
                                         Model{11, 23, "InterSense InertiCube3", 2, 1, 180},
                                         Model{12, 18, "InterSense DLL", 2, 1, 120},
                                         Model{0, 18, "InterSense DLL", 2, 1, 120}),
                         [](const auto& row) { return "Model" + std::to_string(row.param.model); });

TEST_F(IsenseDeviceTest, NegatesYAndZOfAQuaternion) {
  Start();
  ASSERT_EQ(device_.SetComponentMask(4), 4U);
  const double before = device_.ElapsedSeconds();
  double sampleTime = -1;
  ASSERT_TRUE(WaitUntil([&] { return device_.ReadFrame(&sampleTime) == 1; }));
  EXPECT_GE(sampleTime, before);
  // Yaw -180, pitch -45, roll -90, scalar first.
  const float* const q = device_.GetSensorQuaternion(0);
  const double half = std::sqrt(0.5);
  const double c = std::cos(M_PI / 8), s = std::sin(M_PI / 8);
  EXPECT_NEAR(q[0], -s * half, 1e-6);
  EXPECT_NEAR(q[1], -s * half, 1e-6);
  EXPECT_NEAR(q[2], -c * half, 1e-6);
  EXPECT_NEAR(q[3], c * half, 1e-6);
  EXPECT_EQ(device_.GetSensorPose(0)[3], 0.0F);
}

TEST_F(IsenseDeviceTest, SettingsAndTheirRefusals) {
  EXPECT_EQ(device_.SetProtocol(1), 1);
  EXPECT_EQ(device_.SetComponentMask(6), 2U);
  Start();
  EXPECT_EQ(device_.GetProtocol(), 0);
  EXPECT_EQ(device_.SetProtocol(2), 2);
  EXPECT_EQ(device_.SetProtocol(3), -20);
  EXPECT_EQ(device_.SetProtocol(-1), -20);
  settings_.Set("FAIL", "SetStationConfig");
  EXPECT_EQ(device_.SetProtocol(1), -21);
  EXPECT_EQ(device_.SetComponentMask(5), 5U);
  settings_.Set("FAIL", "GetStationConfig");
  EXPECT_EQ(device_.SetProtocol(1), -14);
  EXPECT_EQ(device_.GetProtocol(), 2);
  char text[16];
  EXPECT_EQ(device_.GetProtocolText(text, sizeof text), 2);
  EXPECT_STREQ(text, "2: Smooth");
  device_.GetProtocolText(text, 5);
  EXPECT_STREQ(text, "2: S");
}

struct Text {
  const char* text;
  bool taken;
  const char* after;
};

TEST_F(IsenseDeviceTest, ControlStringIsAPort) {
  const Text rows[] = {{"8080", true, "8080"},   {"", true, "8080"},
                       {"0x1F90", true, "8080"}, {"port 5", false, "0"},
                       {"010", true, "8"},       {"5000 and more", true, "5000"},
                       {"65536", false, "0"},    {"-7", false, "0"},
                       {" 2000", true, "2000"},  {"99999999999999999999", false, "0"}};
  for (const Text& row : rows) {
    EXPECT_EQ(device_.SetControlString(row.text), row.taken) << row.text;
    char text[8] = {};
    EXPECT_TRUE(device_.GetControlString(text, sizeof text));
    EXPECT_STREQ(text, row.after) << row.text;
  }
  EXPECT_TRUE(device_.SetControlString(nullptr));
}

TEST_F(IsenseDeviceTest, DescribesTheTrackerInWholeLines) {
  Start(2);
  char text[512];
  EXPECT_EQ(device_.QueryStatus(text, sizeof text), 1);
  EXPECT_STREQ(text,
               "TRACKER INFO STATUS:\nLibVersion: \t  1.000\nTrackerType: \t  1\tPrecision Series"
               "\nTrackerModel: \t 11\tIntertiaCube3\nPort:     \t  2\nRecordsPerSec: \t180"
               "\nKBitsPerSec: \t115.200\nSyncState: \t  0\nSyncRate: \t  0.000"
               "\nSyncPhase: \t  0\nInterface: \t  1\tRS-232");
  EXPECT_EQ(device_.QueryStatus(text, 100), 1);
  EXPECT_STREQ(text, "TRACKER INFO STATUS:\nLibVersion: \t  1.000");
  std::strcpy(text, "as it was");
  EXPECT_EQ(device_.QueryStatus(text, 99), 1);
  EXPECT_STREQ(text, "as it was");
  EXPECT_EQ(device_.QueryStatus(nullptr, 512), 1);
  settings_.Set("FAIL", "GetTrackerConfig");
  EXPECT_EQ(device_.QueryStatus(text, sizeof text), -13);
}

// ---- A library that fails ------------------------------------------------------------------

TEST_F(IsenseDeviceTest, FailsWhenAFrameCannotBeSentOn) {
  Start();
  ASSERT_TRUE(device_.SetControlString("5000"));
  settings_.Set("FAIL", "UdpBroadcastData");
  EXPECT_TRUE(WaitUntil([this] {
    EXPECT_EQ(device_.ReadFrame(nullptr), 0U);
    return device_.GetSensorPose(0)[3] != 0.0F;
  }));
}

TEST_F(IsenseDeviceTest, ClosesALostTrackerBeforeReopening) {
  Start();
  settings_.Set("FAIL", "GetCommInfo");
  EXPECT_EQ(CallsOf([this] { device_.OpenPortNumber(1, 0); }),
            (Calls{"GetCommInfo 1", "CloseTracker 1", "NumOpenTrackers", "OpenTracker 1 1 0"}));
}

TEST_F(IsenseDeviceTest, SamplingAllocatesNothing) {
  settings_.Set("CALLS", "");
  Start();
  ASSERT_TRUE(ReadNext());
  const auto sample = [this] {
    for (int i = 0; i < 20; ++i) device_.ReadFrame(nullptr), device_.Poll();
  };
  EXPECT_EQ(AllocationsOf(sample), 0);
}

// ---- Senders that come, go, and meet other traffic on their port ---------------------------

DatagramSocket OpenAny() { return std::move(*DatagramSocket::Open(0)); }

// A port that was free a moment ago, above the numbers of serial ports.
int FreePort() { return OpenAny().port(); }

void SendTo(int port, std::size_t size) {
  const std::vector<std::byte> bytes(size);
  EXPECT_TRUE(OpenAny().Send("127.0.0.1", static_cast<std::uint16_t>(port), bytes).Ok());
}

TEST(UdpProbe, CountsBytesUpToAnEmptyDatagram) {
  UdpProbe probe;
  EXPECT_EQ(probe.Drain(), 0U);
  const int port = FreePort();
  ASSERT_TRUE(probe.Open(port).Ok());
  EXPECT_EQ(probe.port(), port);
  EXPECT_EQ(probe.Drain(), 0U);
  for (const std::size_t size : {10U, 1088U, 0U, 5000U}) SendTo(port, size);
  EXPECT_EQ(probe.Drain(), 1098U);
  EXPECT_EQ(probe.Drain(), 2048U);
  EXPECT_EQ(probe.Drain(), 0U);
  probe.Close();
  EXPECT_EQ(probe.port(), -1);
}

class IsenseSource : public testing::Test {
 protected:
  IsenseSource() : port_(FreePort()) { settings_.Set("BROADCAST", "127.0.0.1"); }

  void StartWaiting() {
    ASSERT_EQ(waiting_.OpenPortNumber(port_, 0), 1);
    ASSERT_EQ(waiting_.GetPortNumber(), port_);
    ASSERT_EQ(waiting_.Boot(0), 1);
  }

  IsenseSettings settings_;
  int port_;
  IsenseDevice waiting_;
  IsenseDevice source_;
};

TEST_F(IsenseSource, ThatIsMissingBootsAsAnInertiaCubeAndGivesZeros) {
  testing::internal::CaptureStderr();
  StartWaiting();
  EXPECT_STREQ(waiting_.GetDeviceName(), "InterSense InertiCube2");
  EXPECT_EQ(waiting_.GetFrameRate(), 120);
  waiting_.GetSensorPose(0)[3] = 1;
  double sampleTime = -1;
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(waiting_.ReadFrame(&sampleTime), 1U);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1000));
  EXPECT_GE(sampleTime, 1.0);
  EXPECT_EQ(waiting_.GetSensorPose(0)[3], 0.0F);
  EXPECT_EQ(settings_.TakeCalls(), std::vector<std::string>{});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(IsenseSource, MayComeGoAndComeAgain) {
  StartWaiting();
  ASSERT_EQ(source_.OpenPortNumber(1, 0), 1);
  ASSERT_EQ(source_.Boot(0), 1);
  ASSERT_TRUE(source_.SetControlString(std::to_string(port_).c_str()));
  const auto passOn = [this] {
    return WaitUntil([this] { return source_.ReadFrame(nullptr) == 1; });
  };
  ASSERT_TRUE(passOn());
  // The first record only shows that a sender is there.
  EXPECT_EQ(waiting_.ReadFrame(nullptr), 0U);
  for (int round = 0; round < 2; ++round) {
    for (int frame = 0; frame < 20; ++frame) {
      ASSERT_TRUE(passOn());
      ASSERT_TRUE(WaitUntil([this] { return waiting_.ReadFrame(nullptr) == 1; }));
      ASSERT_EQ(waiting_.GetSensorPose(0)[3], source_.GetSensorPose(0)[3]);
      ASSERT_EQ(waiting_.GetSensorPose(0)[5], source_.GetSensorPose(0)[5]);
    }
    EXPECT_EQ(waiting_.ReadFrame(nullptr), 0U);  // the sender is gone for a while
  }
  EXPECT_EQ(waiting_.ClosePort(), 1);
  EXPECT_NE(waiting_.GetPortNumber(), port_);
  UdpProbe probe;
  EXPECT_TRUE(probe.Open(port_).Ok());  // the library has closed the port
}

TEST_F(IsenseSource, PortInUseIsReportedOnceAndOpenedLater) {
  StatusLog log;
  waiting_.SetStatusLog(&log);
  auto taken = DatagramSocket::Open(static_cast<std::uint16_t>(port_));
  ASSERT_TRUE(taken.Ok());
  StartWaiting();
  EXPECT_EQ(waiting_.ReadFrame(nullptr), 1U);
  ASSERT_EQ(log.Entries().size(), 1U);
  EXPECT_NE(log.Newest().text.find("UDP port " + std::to_string(port_)), std::string::npos);
  { const DatagramSocket given = std::move(*taken); }
  EXPECT_EQ(waiting_.ReadFrame(nullptr), 1U);
  SendTo(port_, 100);
  EXPECT_EQ(waiting_.ReadFrame(nullptr), 0U);  // the library has the port
  EXPECT_EQ(log.Entries().size(), 1U);
}

TEST_F(IsenseSource, IsWaitedForAgainAfterTheLibraryFailsToOpen) {
  StartWaiting();
  settings_.Set("FAIL", "OpenTracker@0+2");
  SendTo(port_, 100);
  EXPECT_EQ(waiting_.ReadFrame(nullptr), 1U);
  EXPECT_EQ(waiting_.GetPortNumber(), port_);
  settings_.Set("FAIL", "");
  SendTo(port_, 0);
  EXPECT_EQ(waiting_.ReadFrame(nullptr), 1U);
  SendTo(port_, 100);
  EXPECT_EQ(waiting_.ReadFrame(nullptr), 0U);
  const auto calls = settings_.TakeCalls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "OpenTracker " + std::to_string(port_) + " 0 0"),
            2);
}

// Both before and after the library opens the port.
TEST_F(IsenseSource, IsFoundAmongOtherDatagrams) {
  StartWaiting();
  std::atomic<bool> stop = false;
  std::atomic<std::size_t> sent = 0;
  std::thread flood([&] {
    DatagramSocket socket = OpenAny();
    const std::vector<std::byte> bytes(65507);
    for (std::size_t i = 0; !stop || i <= bytes.size(); ++i) {  // every size
      const std::size_t size = i * 977 % (bytes.size() + 1);
      static_cast<void>(socket.Send("127.0.0.1", static_cast<std::uint16_t>(port_),
                                    std::span(bytes).first(size)));
      sent = i + 1;
    }
  });
  auto longest = std::chrono::steady_clock::duration::zero();
  const auto read = [&] {
    const auto before = std::chrono::steady_clock::now();
    waiting_.ReadFrame(nullptr);
    longest = std::max(longest, std::chrono::steady_clock::now() - before);
    return waiting_.GetBaudRate() != 0;
  };
  const bool found = WaitUntil(read);
  while (sent <= 0xFFFF) read();
  stop = true;
  flood.join();
  EXPECT_TRUE(found);
  EXPECT_LT(longest, std::chrono::seconds(3));
}

}  // namespace
}  // namespace kinetrel::test

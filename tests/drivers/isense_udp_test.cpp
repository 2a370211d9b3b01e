// Senders on UDP ports: the driver waits for them, loses them, and meets other traffic on the port.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "drivers/isense_device.h"
#include "tests/support/substitute_settings.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

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

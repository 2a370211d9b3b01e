// A serial line of this system, from both ends: KINETREL_TEST_LINES names two ports that are joined
// by a null modem, "COM5 COM6" (tests/windows/devices.sh makes such a pair). The text "HANG UP"
// written to the second makes the first one's far end go.
#include "platform/serial_line.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/elapsed.h"

namespace kinetrel {
namespace {

using test::MillisecondsSince;

constexpr Milliseconds kLong{20000};  // a wait that must end early

class JoinedLines : public testing::Test {
 protected:
  void SetUp() override {
    const char* const names = std::getenv("KINETREL_TEST_LINES");
    if (names == nullptr) GTEST_SKIP() << "needs two ports that are joined";
    std::istringstream both(names);
    std::string near, far;
    both >> near >> far;
    near_ = Open(near);
    far_ = Open(far);
    ASSERT_TRUE(near_ && far_);
  }

  static std::unique_ptr<SerialLine> Open(const std::string& name) {
    Result<SerialLine> line = SerialLine::Open(name);
    EXPECT_TRUE(line.Ok()) << SerialLine::ExplainOpenFailure(name, line.status());
    if (!line.Ok()) return nullptr;
    auto opened = std::make_unique<SerialLine>(std::move(*line));
    EXPECT_TRUE(opened->Apply({.baud = 115200}).Ok());
    EXPECT_TRUE(opened->SetReadTimeouts({}).Ok());
    EXPECT_TRUE(opened->WatchInput().Ok());
    EXPECT_TRUE(opened->PurgeInput().Ok());
    return opened;
  }

  static void Send(SerialLine& line, const std::string& text) {
    const Result<std::size_t> sent = line.Write(std::as_bytes(std::span(text)));
    ASSERT_TRUE(sent.Ok()) << Describe(sent.status());
    EXPECT_EQ(*sent, text.size());
  }

  static std::string Receive(SerialLine& line, std::size_t count) {
    std::string text(count, '?');
    const Result<std::size_t> got = line.Read(std::as_writable_bytes(std::span(text)));
    return got.Ok() ? text.substr(0, *got) : Describe(got.status());
  }

  std::unique_ptr<SerialLine> near_;
  std::unique_ptr<SerialLine> far_;
};

TEST_F(JoinedLines, PassEveryByteAsItIs) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  Send(*far_, all);
  ASSERT_TRUE(near_->WaitForInput(all.size(), kLong).Ok());
  EXPECT_EQ(*near_->InputQueueLength(), all.size());
  EXPECT_EQ(Receive(*near_, all.size()), all);
  EXPECT_EQ(Receive(*near_, 10), "");
}

TEST_F(JoinedLines, AreWaitedForWithAndWithoutATimeOut) {
  const std::int64_t start = ClockTicks();
  EXPECT_EQ(near_->WaitForInput(1, Milliseconds(60)).error, Error::TimedOut);
  EXPECT_GE(MillisecondsSince(start), 60);
  EXPECT_LT(MillisecondsSince(start), kLong.count());
  for (const char* const text : {"one", "two"}) {
    std::jthread later([this, text] {
      SleepFor(Milliseconds(50));
      Send(*far_, text);
    });
    ASSERT_TRUE(near_->WaitForInput(3, kForever).Ok());
    EXPECT_EQ(Receive(*near_, 3), text);
  }
}

struct TimedRead {
  const char* test;
  ReadTimeouts timeouts;
  const char* sent;
  double leastMs;
};

TEST_F(JoinedLines, EndAReadWhenItsTimeIsUp) {
  const TimedRead rows[] = {
      {"total", {0, 0, 200}, "", 190},
      {"total for each byte", {0, 20, 0}, "", 190},
      {"interval", {50, 0, 0}, "ab", 40},
      {"at once", {}, "", 0},
  };
  for (const TimedRead& row : rows) {
    SCOPED_TRACE(row.test);
    ASSERT_TRUE(near_->SetReadTimeouts(row.timeouts).Ok());
    Send(*far_, row.sent);
    ASSERT_TRUE(near_->WaitForInput(std::strlen(row.sent), kLong).Ok());
    const std::int64_t start = ClockTicks();
    EXPECT_EQ(Receive(*near_, 10), row.sent);
    EXPECT_GE(MillisecondsSince(start), row.leastMs);
    EXPECT_LT(MillisecondsSince(start), 10000);
  }
}

TEST_F(JoinedLines, ForgetWhatIsPurged) {
  Send(*far_, "old");
  ASSERT_TRUE(near_->WaitForInput(3, kLong).Ok());
  EXPECT_TRUE(near_->PurgeInput().Ok());
  EXPECT_EQ(*near_->InputQueueLength(), 0U);
  EXPECT_TRUE(far_->DrainOutput().Ok());
  EXPECT_TRUE(far_->PurgeOutput().Ok());
}

// A pseudo-terminal has 8 bits and no parity, whatever it is told.
TEST_F(JoinedLines, KeepTheirSettings) {
  LineSettings settings = *near_->Settings();
  settings.baud = 9600;
  settings.stopBits = StopBits::Two;
  ASSERT_TRUE(near_->Apply(settings).Ok());
  const LineSettings kept = *near_->Settings();
  EXPECT_EQ(kept.baud, 9600U);
  EXPECT_EQ(kept.stopBits, StopBits::Two);
  settings.byteSize = 3;
  EXPECT_FALSE(near_->Apply(settings).Ok());
}

TEST_F(JoinedLines, TellThatTheFarEndHasGone) {
  Send(*far_, "HANG UP");
  EXPECT_EQ(near_->WaitForInput(1000, kLong).error, Error::Closed);
  std::array<std::byte, 8> rest{};
  EXPECT_EQ(near_->Read(rest).status().error, Error::Closed);
  EXPECT_EQ(near_->Write(rest).status().error, Error::Closed);
}

}  // namespace
}  // namespace kinetrel

#include "platform/serial_line.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/elapsed.h"
#include "tests/support/pseudo_terminal.h"

namespace kinetrel {
namespace {

using test::MillisecondsSince;
using test::PseudoTerminal;

constexpr Milliseconds kLong{20000};  // a time-out that must not be used up
constexpr double kSoon = 10000;       // ms: within it even on the slowest machine

double ThreadCpuMilliseconds() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) * 1e-6;
}

SerialLine MustOpen(const std::string& name) {
  Result<SerialLine> line = SerialLine::Open(name);
  if (!line.Ok()) throw std::runtime_error(Describe(line.status()));
  return std::move(*line);
}

std::string ReadText(SerialLine& line, std::size_t count) {
  std::string text(count, '?');
  const Result<std::size_t> got = line.Read(std::as_writable_bytes(std::span(text)));
  if (!got.Ok()) return Describe(got.status());
  return text.substr(0, *got);
}

Result<std::size_t> WriteText(SerialLine& line, const std::string& text) {
  return line.Write(std::as_bytes(std::span(text)));
}

// An open line, and its far end.
class OpenLine : public testing::Test {
 protected:
  // The far end sends a text, and the line reads it ahead.
  void Arrive(const std::string& text) {
    far_.Send(text);
    EXPECT_TRUE(line_.WaitForInput(text.size(), kLong).Ok());
  }

  PseudoTerminal far_;
  SerialLine line_ = MustOpen(far_.path());
};

// ---- Opening -------------------------------------------------------------------------------

struct BadName {
  const char* test;
  std::string name;
  Error error;
  std::string explanation;
};

TEST(SerialLine, ARefusalSaysWhy) {
  const BadName rows[] = {
      {"MissingPath", "/dev/no-such-line", Error::NotFound, "/dev/no-such-line: no such device"},
      {"MissingNumber", "COM4000", Error::NotFound,
       "COM4000 (/dev/ttyS3999): no such device; KINETREL_COM4000 can name another one"},
      {"NumberZero", "COM0", Error::NotFound,
       "COM0: no such device; KINETREL_COM0 can name another one"},
      {"NumberTooLarge", "COM99999999999", Error::NotFound, "COM99999999999: no such device"},
      {"Empty", "", Error::NotFound, ": no such device"},
      {"Directory", "/", Error::Invalid, "/: not a serial device"},
      {"RegularFile", KINETREL_SOURCE_DIR "/CMakeLists.txt", Error::Invalid,
       KINETREL_SOURCE_DIR "/CMakeLists.txt: not a serial device"}};
  for (const BadName& row : rows) {
    SCOPED_TRACE(row.test);
    const Result<SerialLine> line = SerialLine::Open(row.name);
    ASSERT_FALSE(line.Ok());
    EXPECT_EQ(line.status().error, row.error);
    EXPECT_EQ(SerialLine::ExplainOpenFailure(row.name, line.status()), row.explanation);
  }
}

// Gives up the rights of root for one thread's file accesses.
class AsNobody {
 public:
  AsNobody() { setfsuid(65534); }
  ~AsNobody() { setfsuid(0); }
};

TEST(SerialLine, ARefusalNamesTheGroupThatMayUseTheDevice) {
  const group* const dialout = getgrnam("dialout");
  if (geteuid() != 0 || dialout == nullptr) GTEST_SKIP() << "needs root and the group dialout";
  PseudoTerminal far;
  ASSERT_EQ(chown(far.path().c_str(), 0, dialout->gr_gid), 0);
  ASSERT_EQ(chmod(far.path().c_str(), 0660), 0);
  const AsNobody nobody;
  const Result<SerialLine> line = SerialLine::Open(far.path());
  ASSERT_FALSE(line.Ok());
  EXPECT_EQ(line.status().error, Error::Denied);
  EXPECT_EQ(SerialLine::ExplainOpenFailure(far.path(), line.status()),
            far.path() + ": permission denied: add this account to group dialout and log in again");
}

TEST_F(OpenLine, APseudoTerminalIsALineWithoutModemLines) {
  const Result<SerialCapabilities> capabilities = line_.Capabilities();
  ASSERT_TRUE(capabilities.Ok());
  EXPECT_TRUE(capabilities->serialLine);
  EXPECT_FALSE(capabilities->rtsCts);
  EXPECT_EQ(line_.SetDtr(true).error, Error::Unsupported);
  EXPECT_EQ(line_.SetRts(false).error, Error::Unsupported);
}

TEST(SerialLine, IsRawWhileOpenAndRestoredAfterwards) {
  PseudoTerminal far(PseudoTerminal::Mode::Cooked);
  const termios before = far.Settings();
  {
    SerialLine line = MustOpen(far.path());
    ASSERT_TRUE(line.Apply({.baud = 4800}).Ok());
    const std::string all("\x03\r\n\x11\x13\x7F\xFF\0z",
                          9);  // what a terminal in cooked mode would change
    far.Send(all);
    ASSERT_TRUE(line.WaitForInput(all.size(), kLong).Ok());
    EXPECT_EQ(ReadText(line, 20), all);
    EXPECT_EQ(*WriteText(line, all), all.size());
    EXPECT_TRUE(far.Expect(all));
    EXPECT_EQ(far.Received(), all);  // and no echo of what came
  }
  const termios after = far.Settings();
  EXPECT_TRUE(test::SameSettings(after, before));
  EXPECT_EQ(cfgetospeed(&after), cfgetospeed(&before));
}

TEST_F(OpenLine, TakesAnyRateAndShowsStandardOnesToOtherPrograms) {
  for (const unsigned baud : {300U, 9600U, 31250U, 115200U, 250000U}) {
    ASSERT_TRUE(line_.Apply({.baud = baud, .stopBits = StopBits::Two}).Ok()) << baud;
    EXPECT_EQ(line_.Settings()->baud, baud);
    EXPECT_EQ(line_.Settings()->stopBits, StopBits::Two);
  }
  ASSERT_TRUE(line_.Apply({.baud = 19200}).Ok());
  const termios seen = far_.Settings();
  EXPECT_EQ(cfgetospeed(&seen), static_cast<speed_t>(B19200));
  EXPECT_EQ(line_.Apply({.baud = 0}).error, Error::Invalid);
  EXPECT_EQ(line_.Settings()->baud, 19200U);
}

// ---- Reading -------------------------------------------------------------------------------

struct Piece {
  int afterMs;
  std::string bytes;
};

// What the far end does while the near end reads or waits. Pieces at 0 ms are sent before that.
class FarEnd {
 public:
  FarEnd(PseudoTerminal& far, std::vector<Piece> pieces) {
    if (!pieces.empty() && pieces.front().afterMs == 0) {
      far.Send(pieces.front().bytes);
      pieces.erase(pieces.begin());
    }
    thread_ = std::thread([&far, pieces] {
      for (const Piece& piece : pieces) {
        SleepFor(Milliseconds(piece.afterMs));
        if (piece.bytes == "hang up") return far.HangUp();
        far.Send(piece.bytes);
      }
    });
  }
  ~FarEnd() { thread_.join(); }

 private:
  std::thread thread_;
};

struct TimedRead {
  const char* name;
  ReadTimeouts timeouts;
  std::vector<Piece> far;
  std::string expected;  // of a read of 4 bytes
  double atLeastMs;
};

class SerialLineReads : public OpenLine, public testing::WithParamInterface<TimedRead> {};

TEST_P(SerialLineReads, UnderItsTimeouts) {
  const TimedRead& row = GetParam();
  ASSERT_TRUE(line_.SetReadTimeouts(row.timeouts).Ok());
  const std::int64_t start = ClockTicks();
  const FarEnd script(far_, row.far);
  EXPECT_EQ(ReadText(line_, 4), row.expected);
  EXPECT_GE(MillisecondsSince(start), row.atLeastMs);
  EXPECT_LT(MillisecondsSince(start), row.atLeastMs + kSoon);
}

constexpr std::uint32_t kAtOnce = ReadTimeouts::kReturnAtOnce;
constexpr std::uint32_t kLongMs = 20000;

INSTANTIATE_TEST_SUITE_P(
    Line, SerialLineReads,
    testing::Values(
        TimedRead{"AtOnceWithNothing", {kAtOnce, 0, 0}, {}, "", 0},
        TimedRead{"AtOnceWithWhatIsThere", {kAtOnce, 0, 0}, {{0, "ab"}}, "ab", 0},
        TimedRead{"ConstantPassesInSilence", {0, 0, 50}, {}, "", 50},
        TimedRead{"MultiplierCountsTheBytesAsked", {0, 10, 20}, {{0, "a"}}, "a", 60},
        TimedRead{"ConstantEndsAnUnfinishedRead", {0, 0, 60}, {{0, "ab"}}, "ab", 60},
        TimedRead{"IntervalEndsAnUnfinishedRead", {40, 0, kLongMs}, {{0, "abc"}}, "abc", 40},
        TimedRead{"IntervalStartsWithTheFirstByte", {30, 0, 0}, {{100, "a"}}, "a", 130},
        TimedRead{"IntervalAloneNeverEndsSilence", {1, 0, 0}, {{100, "abcd"}}, "abcd", 100},
        TimedRead{"BlocksWithoutTimeouts", {0, 0, 0}, {{0, "a"}, {80, "bcd"}}, "abcd", 80},
        TimedRead{"HangUpEndsSilence", {0, 0, kLongMs}, {{50, "hang up"}}, "read: closed", 50},
        TimedRead{"HangUpEndsABlockedRead", {0, 0, 0}, {{50, "hang up"}}, "read: closed", 50}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(OpenLine, EveryOperationReportsAHangUp) {
  far_.HangUp();
  std::byte one{};
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(line_.Read({&one, 1}).status().error, Error::Closed);
    EXPECT_EQ(line_.Write({&one, 1}).status().error, Error::Closed);
    EXPECT_EQ(line_.WaitForInput(1, kLong).error, Error::Closed);
    EXPECT_EQ(line_.InputQueueLength().status().error, Error::Closed);
    EXPECT_EQ(line_.DrainOutput().error, Error::Closed);
    EXPECT_EQ(line_.Apply({.baud = 9600}).error, Error::Closed);
  }
}

// ---- Waiting -------------------------------------------------------------------------------

struct Wait {
  const char* name;
  std::size_t count;
  Milliseconds timeout;
  std::vector<Piece> far;
  Error error;
  double atLeastMs;
};

class SerialLineWaits : public OpenLine, public testing::WithParamInterface<Wait> {};

TEST_P(SerialLineWaits, AndWakesWhenBytesArrive) {
  const Wait& row = GetParam();
  const std::int64_t start = ClockTicks();
  const FarEnd script(far_, row.far);
  EXPECT_EQ(line_.WaitForInput(row.count, row.timeout).error, row.error);
  EXPECT_GE(MillisecondsSince(start), row.atLeastMs);
  EXPECT_LT(MillisecondsSince(start), row.atLeastMs + kSoon);
}

INSTANTIATE_TEST_SUITE_P(
    Line, SerialLineWaits,
    testing::Values(
        Wait{"AlreadyThere", 2, kLong, {{0, "ab"}}, Error::None, 0},
        Wait{"InPieces", 4, kLong, {{0, "a"}, {40, "b"}, {40, "cd"}}, Error::None, 80},
        Wait{"WithoutATimeout", 1, kForever, {{50, "a"}}, Error::None, 50},
        Wait{"Silence", 1, Milliseconds(60), {}, Error::TimedOut, 60},
        Wait{"TooFew", 3, Milliseconds(60), {{0, "ab"}}, Error::TimedOut, 60},
        Wait{"MoreThanTheSystemKeeps", 100000, Milliseconds(60), {{0, "a"}}, Error::TimedOut, 60},
        Wait{"HangUpInSilence", 1, kForever, {{50, "hang up"}}, Error::Closed, 50},
        Wait{"HangUpInARecord", 3, kForever, {{0, "ab"}, {50, "hang up"}}, Error::Closed, 50}),
    [](const auto& row) { return std::string(row.param.name); });

// Sends this thread a signal each millisecond, whose handler restarts nothing.
class Signals {
 public:
  Signals() {
    struct sigaction handled {};
    handled.sa_handler = [](int) {};
    sigaction(SIGUSR1, &handled, &before_);
    sender_ = std::jthread([me = pthread_self()](const std::stop_token& stop) {
      for (; !stop.stop_requested(); SleepFor(Milliseconds(1))) pthread_kill(me, SIGUSR1);
    });
  }
  ~Signals() {
    sender_ = {};
    sigaction(SIGUSR1, &before_, nullptr);
  }

 private:
  struct sigaction before_ {};
  std::jthread sender_;
};

TEST(SerialLine, ASignalEndsNoWaitEarly) {
  PseudoTerminal far;
  const Signals signals;
  SerialLine line = MustOpen(far.path());
  const std::int64_t start = ClockTicks();
  EXPECT_EQ(line.WaitForInput(1, Milliseconds(60)).error, Error::TimedOut);
  EXPECT_GE(MillisecondsSince(start), 60);
  ASSERT_TRUE(line.SetReadTimeouts({0, 0, 60}).Ok());
  const FarEnd script(far, {{0, "a"}, {20, "b"}});
  EXPECT_EQ(ReadText(line, 4), "ab");
  EXPECT_GE(MillisecondsSince(start), 120);
}

TEST_F(OpenLine, WaitingForTheRestOfARecordDoesNotSpin) {
  far_.Send("ab");
  const double before = ThreadCpuMilliseconds();
  EXPECT_EQ(line_.WaitForInput(3, Milliseconds(600)).error, Error::TimedOut);
  EXPECT_LT(ThreadCpuMilliseconds() - before, 300);
}

// ---- The bytes read ahead ------------------------------------------------------------------

TEST_F(OpenLine, APurgeDropsBytesReadAhead) {
  Arrive("abcdef");
  EXPECT_EQ(ReadText(line_, 4), "abcd");
  EXPECT_TRUE(line_.PurgeInput().Ok());
  EXPECT_EQ(*line_.InputQueueLength(), 0U);
  EXPECT_EQ(ReadText(line_, 4), "");
  Arrive("xy");
  EXPECT_EQ(ReadText(line_, 4), "xy");
}

TEST_F(OpenLine, TheQueueLengthCountsBytesReadAheadAndLaterOnes) {
  Arrive("abcdef");
  EXPECT_EQ(ReadText(line_, 4), "abcd");
  far_.Send("ghi");
  EXPECT_TRUE(line_.WaitForInput(5, kLong).Ok());
  EXPECT_EQ(*line_.InputQueueLength(), 5U);
  EXPECT_EQ(ReadText(line_, 4), "efgh");
  EXPECT_EQ(ReadText(line_, 4), "i");
}

TEST_F(OpenLine, AHangUpIsReportedAfterBytesReadAhead) {
  Arrive("abcdef");
  far_.HangUp();
  EXPECT_TRUE(line_.WaitForInput(6, kLong).Ok());
  EXPECT_EQ(line_.WaitForInput(7, kLong).error, Error::Closed);
  EXPECT_EQ(*line_.InputQueueLength(), 6U);
  EXPECT_EQ(ReadText(line_, 4), "abcd");
  EXPECT_EQ(*line_.InputQueueLength(), 2U);
  EXPECT_EQ(ReadText(line_, 4), "ef");
  EXPECT_EQ(ReadText(line_, 4), "read: closed");
  EXPECT_EQ(line_.InputQueueLength().status().error, Error::Closed);
  EXPECT_EQ(line_.PurgeInput().error, Error::Closed);
}

TEST_F(OpenLine, BytesReadAheadAreReturnedWithoutAskingTheSystem) {
  ASSERT_TRUE(line_.SetReadTimeouts({0, 0, kLongMs}).Ok());
  far_.Send("abcdefgh");
  ASSERT_TRUE(line_.WaitForInput(8, kLong).Ok());
  ASSERT_EQ(tcflush(far_.nearEnd(), TCIFLUSH), 0);  // the system itself holds no byte any more
  EXPECT_TRUE(line_.WaitForInput(8, kForever).Ok());
  EXPECT_EQ(ReadText(line_, 4), "abcd");
  EXPECT_EQ(ReadText(line_, 4), "efgh");
}

TEST_F(OpenLine, MoreThanTheReadAheadTakesArrivesInOrder) {
  ASSERT_TRUE(line_.SetReadTimeouts({0, 0, kLongMs}).Ok());
  std::string sent;
  for (int i = 0; i < 2000; ++i) sent += std::to_string(10000 + i);
  std::thread device([&] { far_.Send(sent); });
  ASSERT_TRUE(line_.WaitForInput(SerialLine::kMostReadAhead, kLong).Ok());
  EXPECT_EQ(*line_.InputQueueLength(), SerialLine::kMostReadAhead);
  EXPECT_EQ(ReadText(line_, sent.size()), sent);
  device.join();
}

// ---- Writing -------------------------------------------------------------------------------

TEST(SerialLine, WhatWasWrittenArrivesDespiteAPurgeAndAClose) {
  PseudoTerminal far;
  {
    SerialLine line = MustOpen(far.path());
    ASSERT_EQ(*WriteText(line, "reset"), 5U);
    EXPECT_TRUE(line.PurgeOutput().Ok());
    ASSERT_EQ(*WriteText(line, "stop"), 4U);
  }
  EXPECT_TRUE(far.Expect("resetstop"));
}

TEST_F(OpenLine, AWriteToAStuckLineEndsAfterASecond) {
  const std::string much(1 << 20, 'x');
  std::int64_t start = ClockTicks();
  const Result<std::size_t> first = WriteText(line_, much);
  ASSERT_TRUE(first.Ok());
  EXPECT_GT(*first, 0U);
  EXPECT_LT(*first, much.size());
  EXPECT_GE(MillisecondsSince(start), 1000);

  start = ClockTicks();
  EXPECT_EQ(WriteText(line_, much).status().error, Error::TimedOut);
  EXPECT_GE(MillisecondsSince(start), 1000);
  EXPECT_LT(MillisecondsSince(start), 1000 + kSoon);
}

}  // namespace
}  // namespace kinetrel

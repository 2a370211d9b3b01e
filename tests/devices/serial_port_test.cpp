#include "devices/serial_port.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "tests/support/elapsed.h"
#include "tests/support/pseudo_terminal.h"

namespace kinetrel {
namespace {

using test::MillisecondsSince;
using test::PseudoTerminal;

constexpr int kLongMs = 20000;   // a wait that must end early
constexpr double kSoon = 10000;  // ms: early even on a slow machine

void NameComPort(int number, const PseudoTerminal& far) {
  setenv(("KINETREL_COM" + std::to_string(number)).c_str(), far.path().c_str(), 1);
}

// A port open on the near end of a pseudo-terminal.
class OpenSerialPort : public testing::Test {
 protected:
  OpenSerialPort() { NameComPort(3, far_); }
  void SetUp() override { ASSERT_EQ(port_.OpenPort("COM3", 9600), 1) << port_.openFailure(); }

  PseudoTerminal far_;
  SerialPort port_;
};

// ---- Opening -------------------------------------------------------------------------------

struct Opening {
  const char* test;
  std::string name;
  PortStatus status;
  std::string failure;  // what openFailure() contains
};

const std::string kDeepDirectory = "/dev/" + std::string(200, 'd') + "/";

TEST(SerialPort, AFailedOpeningEndsWithAStatusAndTheCause) {
  const Opening rows[] = {
      {"NoSuchNumber", "COM4000", PortStatus::NoSuchPort, "KINETREL_COM4000"},
      {"NameOf28", std::string(28, 'x'), PortStatus::NoSuchPort, "too long"},
      {"NameOf27", std::string(27, 'x'), PortStatus::NoSuchPort, "no such device"},
      {"PathOf255", kDeepDirectory + std::string(49, 'x'), PortStatus::NoSuchPort,
       "no such device"},
      {"PathOf256", kDeepDirectory + std::string(51, 'x'), PortStatus::NoSuchPort, "too long"},
      {"Directory", "/dev", PortStatus::NotCharacterDevice, "not a serial device"},
      {"NotALine", "/dev/null", PortStatus::NotSerial, "not a serial device"},
      {"NumberThatIsNoLine", "COM14", PortStatus::NotSerial, "COM14 (/dev/null)"}};
  for (const Opening& row : rows) {
    SCOPED_TRACE(row.test);
    setenv("KINETREL_COM14", "/dev/null", 1);
    SerialPort port;
    EXPECT_EQ(port.portStatus(), PortStatus::NeverOpened);
    EXPECT_EQ(port.OpenPort(row.name.c_str(), 9600), 0);
    EXPECT_EQ(port.portStatus(), row.status);
    EXPECT_NE(port.openFailure().find(row.failure), std::string::npos) << port.openFailure();
    EXPECT_FALSE(port.HasHandle());
    EXPECT_EQ(port.GetPortNumber(), -1);
    EXPECT_EQ(port.ClosePort(), 0);
    EXPECT_EQ(port.portStatus(), row.status);
  }
}

TEST(SerialPort, OpensClosesAndOpensAgain) {
  PseudoTerminal far;
  NameComPort(16, far);
  SerialPort port;
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(port.OpenPortNumber(16, 1152), 1);
    EXPECT_TRUE(port.HasHandle());
    EXPECT_EQ(port.GetPortNumber(), 16);
    EXPECT_EQ(port.portStatus(), PortStatus::Open);
    EXPECT_EQ(port.GetBaudRate(), 115200U);
    EXPECT_EQ(port.timeoutMode(), TimeoutMode::ReturnAtOnce);
    EXPECT_EQ(port.openFailure(), "");
    EXPECT_EQ(port.ClosePort(), 1);
    EXPECT_EQ(port.portStatus(), PortStatus::Closed);
    EXPECT_EQ(port.GetPortNumber(), -1);
    EXPECT_EQ(port.ClosePort(), 0);
  }
}

TEST(SerialPort, ASecondOpenerIsRefusedUntilTheFirstCloses) {
  PseudoTerminal one;
  PseudoTerminal other;
  SerialPort first;
  SerialPort second;
  ASSERT_EQ(first.OpenPort(one.path().c_str(), 9600), 1);
  EXPECT_EQ(second.OpenPort(one.path().c_str(), 9600), 0);
  EXPECT_EQ(second.portStatus(), PortStatus::Refused);
  EXPECT_EQ(second.openFailure(), one.path() + ": in use by another program");
  EXPECT_NE(second.lastError(), 0);
  ASSERT_EQ(first.OpenPort(other.path().c_str(), 9600), 1);
  EXPECT_EQ(second.OpenPort(one.path().c_str(), 9600), 1);
  EXPECT_EQ(second.openFailure(), "");
}

TEST(SerialPort, NumbersOutsideTheRangeBecomeZero) {
  PseudoTerminal far;
  NameComPort(0, far);
  for (const int number : {17, 20, -1, 0}) {
    SerialPort port;
    EXPECT_EQ(port.OpenPortNumber(number, 9600), 1) << number;
    EXPECT_EQ(port.GetPortNumber(), 0) << number;
  }
  NameComPort(20, far);
  SerialPort port;
  EXPECT_EQ(port.OpenPort("COM20", 9600), 1);
  EXPECT_EQ(port.GetPortNumber(), 0);
  unsetenv("KINETREL_COM0");
}

// ---- Line ----------------------------------------------------------------------------------

TEST_F(OpenSerialPort, RatesInShortFormCountHundreds) {
  struct Row {
    int given;
    bool accepted;
    unsigned baud;  // then in force
  };
  for (const Row& row : {Row{1152, true, 115200}, Row{96, true, 9600}, Row{384, true, 38400},
                         Row{12, true, 1200}, Row{300, true, 300}, Row{9600, true, 9600},
                         Row{115200, true, 115200}, Row{31250, true, 31250}, Row{0, false, 31250},
                         Row{-96, false, 31250}, Row{2147483646, false, 31250}}) {
    EXPECT_EQ(port_.SetLineSettings(row.given, 8, 0, 0, 0), row.accepted) << row.given;
    EXPECT_EQ(port_.GetBaudRate(), row.baud) << row.given;
  }
}

TEST_F(OpenSerialPort, ReadTimeoutsFollowTheThreeValueForm) {
  constexpr std::uint32_t kAtOnce = ReadTimeouts::kReturnAtOnce;
  struct Row {
    int constant, perByte, interval;
    bool accepted;
    ReadTimeouts inForce;
    TimeoutMode mode;
  };
  // Each row follows the one before it.
  for (const Row& row : {
           Row{10, 2, 3, true, {3, 2, 10}, TimeoutMode::Timed},
           Row{1, 0, 0, true, {3, 2, 10}, TimeoutMode::Timed},
           Row{0, 7, 7, true, {kAtOnce, 0, 0}, TimeoutMode::ReturnAtOnce},
           Row{1, 0, 0, true, {3, 2, 10}, TimeoutMode::Timed},
           Row{5, -2, -2, true, {5, 5, 5}, TimeoutMode::Timed},
           Row{8, 0, -2, true, {0, 0, 8}, TimeoutMode::Timed},
           Row{-1, 2, 3, false, {0, 0, 8}, TimeoutMode::Timed},
           Row{9, -5, 3, false, {0, 0, 8}, TimeoutMode::Timed},
           Row{-2, 4, -2, true, {4, 4, 0}, TimeoutMode::Timed},
           Row{-2, -2, -2, true, {0, 0, 0}, TimeoutMode::Blocking},
       }) {
    const std::string name = std::to_string(row.constant) + ", " + std::to_string(row.perByte);
    EXPECT_EQ(port_.SetReadTimeouts(row.constant, row.perByte, row.interval), row.accepted) << name;
    EXPECT_EQ(port_.readTimeouts().interval, row.inForce.interval) << name;
    EXPECT_EQ(port_.readTimeouts().multiplier, row.inForce.multiplier) << name;
    EXPECT_EQ(port_.readTimeouts().constant, row.inForce.constant) << name;
    EXPECT_EQ(port_.timeoutMode(), row.mode) << name;
  }
}

// ---- Transfers -----------------------------------------------------------------------------

TEST_F(OpenSerialPort, ReadNeedsAllBytesAndReadSomeTakesAny) {
  char bytes[8] = {};
  unsigned got = 0;
  far_.Send("abcdef");
  ASSERT_TRUE(port_.WaitForRX(kLongMs, 6));
  EXPECT_EQ(port_.InputQueueLength(), 6U);
  EXPECT_TRUE(port_.Read(bytes, 4));
  EXPECT_EQ(std::string(bytes, 4), "abcd");
  EXPECT_TRUE(port_.ReadSome(bytes, 4, &got));
  EXPECT_EQ(got, 2U);
  EXPECT_TRUE(port_.ReadSome(bytes, 4, &got));
  EXPECT_EQ(got, 0U);
  EXPECT_FALSE(port_.Read(bytes, 1));
}

TEST_F(OpenSerialPort, StringsAreWrittenUpToTheirTerminator) {
  EXPECT_EQ(port_.WriteString("R1\r", 0, false), 3);
  EXPECT_EQ(port_.WriteString("S\rnever", '\r', true), 1);
  EXPECT_EQ(port_.WriteString("no end", '\n', true), 6);
  EXPECT_EQ(port_.WriteString("", '!', true), 0);
  EXPECT_EQ(port_.WriteString(nullptr, 0, true), 0);
  ASSERT_TRUE(far_.Expect("!"));
  EXPECT_EQ(far_.Received(), "R1\rS\rno end\n!");
}

TEST_F(OpenSerialPort, APartlyWrittenStringReturnsANegativeCount) {
  const std::string much(100000, 'x');  // the far end reads none of it
  const int written = port_.WriteString(much.c_str(), 0, false);
  EXPECT_LT(written, 0);
  EXPECT_GT(written, -100000);
}

TEST_F(OpenSerialPort, StringsAreReadUpToALineFeedAndAPurgeDiscardsTheRest) {
  struct Row {
    const char* input;
    int size;
    int result;
    std::string buffer;  // of '#' before
  };
  for (const Row& row : {Row{"OK\nNEXT", 8, 3, {"OK\n\0####", 8}},
                         Row{"OK", 8, -2, {"OK\0#####", 8}}, Row{"", 8, 0, {"\0#######", 8}},
                         Row{"LONGER\n", 4, -4, {"LON\0####", 8}}, Row{"A\n", 0, 0, "########"}}) {
    far_.Send(row.input);
    std::string buffer(8, '#');
    EXPECT_EQ(port_.ReadString(buffer.data(), row.size, '\n'), row.result) << row.input;
    EXPECT_EQ(buffer, row.buffer) << row.input;
    port_.PurgeAll();
    EXPECT_EQ(port_.InputQueueLength(), 0U);
  }
}

// ---- Waiting -------------------------------------------------------------------------------

TEST_F(OpenSerialPort, AWaitWithoutATimeoutIsForAnyByte) {
  const std::int64_t start = ClockTicks();
  std::thread device([this] {
    SleepFor(Milliseconds(40));
    far_.Send("a");
  });
  EXPECT_TRUE(port_.WaitForRX(0, 4));
  EXPECT_GE(MillisecondsSince(start), 40);
  device.join();
}

TEST_F(OpenSerialPort, AWaitForNoBytesReturnsAtOnce) {
  const std::int64_t start = ClockTicks();
  EXPECT_TRUE(port_.WaitForRX(kLongMs, 0));
  EXPECT_LT(MillisecondsSince(start), kSoon);
}

}  // namespace
}  // namespace kinetrel

// What kinetrel says below its own message when a tracker does not open.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/support/pseudo_terminal.h"

namespace kinetrel::test {
namespace {

constexpr int kOpenFailed = 254;

// Sends the same bytes over and over to the near end, as a device does that is not asked.
class Sender {
 public:
  Sender(const PseudoTerminal& line, const std::string& bytes)
      : thread_([this, &line, bytes] {
          while (!stop_ && !bytes.empty()) {
            (void)!::write(line.farEnd(), bytes.data(), bytes.size());
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
          }
        }) {}
  ~Sender() {
    stop_ = true;
    thread_.join();
  }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

struct Story {
  const char* name;
  const char* type;   // option -d
  const char* bytes;  // that the device sends by itself
  const char* advice;
};

class FailedOpen : public testing::TestWithParam<Story> {};

TEST_P(FailedOpen, SaysWhatWasHeardAndWhatHelps) {
  const FreeSlot slot;
  const PseudoTerminal line;
  const Sender sender(line, GetParam().bytes);
  ChildProcess program("kinetrel",
                       {"-d", GetParam().type, "-p", "1", "-w", std::to_string(slot.slot())},
                       {.environment = {{"KINETREL_COM1", line.path()}}, .emptyInput = true});
  EXPECT_EQ(program.Wait(), kOpenFailed);
  EXPECT_NE(program.error().find("\n\t\t" + std::string(GetParam().advice)), std::string::npos)
      << program.error();
}

INSTANTIATE_TEST_SUITE_P(
    App, FailedOpen,
    testing::Values(
        Story{"SilentLine", "2", "", "No byte came from COM1 (/dev/pts/"},
        Story{"SilentFlock", "3", "", "No byte came from COM1 (/dev/pts/"},
        Story{"NoSense", "4", "hello, ", "Bytes come from COM1 (/dev/pts/"},
        Story{"ReceiverOfText", "3",
              "$GPZDA,201530.00,04,07,2002,00,00*60\r\n$GPZDA,201530.00,04,07,2002,00,00*60\r\n",
              "A GPS receiver (NMEA) sends there"},
        Story{"WithoutDriver", "13", "", "Device types: "},
        Story{"WithoutLibrary", "6", "", "Install InterSense's library"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(FailedPort, NamesThePortsAndTheSimulatedTracker) {
  const FreeSlot slot;
  ChildProcess program(
      "kinetrel", {"-d2", "-p1", "-w", std::to_string(slot.slot())},
      {.environment = {{"KINETREL_COM1", "/dev/no-such-port"}}, .emptyInput = true});
  EXPECT_EQ(program.Wait(), kOpenFailed);
  EXPECT_TRUE(program.ExpectError("Without a tracker: -d 8.")) << program.error();
}

TEST(FailedOpenOfAnother, NamesTheTrackerThatSendsThere) {
  const FreeSlot slot;
  const std::string link = "/tmp/kinetrel-advice-" + std::to_string(::getpid());
  ChildProcess gps("kinetrel-emulate", {"gps", "--link", link});
  ASSERT_TRUE(gps.ExpectOutput("In another terminal"));
  ChildProcess program("kinetrel", {"-d3", "-p1", "-w", std::to_string(slot.slot())},
                       {.environment = {{"KINETREL_COM1", link}}, .emptyInput = true});
  EXPECT_EQ(program.Wait(), kOpenFailed);
  EXPECT_TRUE(
      program.ExpectError("A GPS receiver (TSIP) sends there at 9600 baud: start with -d 12."))
      << program.error();
  ::unlink(link.c_str());
}

}  // namespace
}  // namespace kinetrel::test

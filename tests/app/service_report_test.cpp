// What the service manager and the journal get, at a socket and a pipe of the test.
#include "app/service_report.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <sstream>

#include "tests/engine/scripted_device.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {
namespace {

// The manager's end: an abstract socket, and all messages so far, each in brackets.
class Manager {
 public:
  Manager() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::memcpy(address.sun_path + 1, name_.data(), name_.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name_.size());
    EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), length), 0);
  }
  ~Manager() { ::close(socket_); }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  std::string address() const { return "@" + name_; }

  bool Got(const std::string& message) {
    std::array<char, 4096> text;
    for (ssize_t size; (size = ::recv(socket_, text.data(), text.size(), 0)) >= 0;) {
      messages_ += "[" + std::string(text.data(), static_cast<std::size_t>(size)) + "]";
    }
    return messages_.find(message) != std::string::npos;
  }
  void Forget() { Got(""), messages_.clear(); }
  const std::string& messages() const { return messages_; }

 private:
  const std::string name_ = "kinetrel-test-" + std::to_string(::getpid());
  const int socket_;
  std::string messages_;
};

enum class Does { SendNothing, SendFrames, Hang };

class Report : public testing::Test {
 protected:
  void SetUp() override {
    SetVariable("NOTIFY_SOCKET", manager_.address());
    SetVariable("WATCHDOG_USEC", "200000");
    script_.readFrame = [this](TrackerDevice&, double*) {
      while (does_ == Does::Hang) hangs_ = true, SleepFor(Milliseconds(1));
      SleepFor(Milliseconds(1));
      return does_ == Does::SendFrames ? 1U : 0U;
    };
    DeviceFactory factory;
    factory.device = [this](int) { return std::make_unique<ScriptedDevice>(script_); };
    engine_.emplace(factory);
    StartConfig config;
    config.shmDevice = slot_.device();
    engine_->Configure(config);
    ASSERT_EQ(engine_->Open(3, 1, false), OpenResult::Opened);
    ASSERT_TRUE(engine_->StartSampling());
    report_.emplace(*engine_);
  }
  void TearDown() override {
    does_ = Does::SendFrames;
    engine_.reset();
    UnsetVariable("NOTIFY_SOCKET");
    UnsetVariable("WATCHDOG_USEC");
  }

  bool LookUntil(const std::string& message, Milliseconds patience = kPatience) {
    return WaitUntil([&] { return report_->Look(), manager_.Got(message); }, patience);
  }

  FreeSlot slot_;
  Manager manager_;
  std::atomic<Does> does_ = Does::SendNothing;
  std::atomic<bool> hangs_ = false;
  Script script_;
  std::optional<TrackerEngine> engine_;
  std::optional<ServiceReport> report_;
};

TEST_F(Report, IsReadyWithAFrameAndAliveWhileSamplingGoesOn) {
  EXPECT_TRUE(LookUntil("[EXTEND_TIMEOUT_USEC="));
  EXPECT_TRUE(LookUntil("[STATUS=Running ...]"));
  EXPECT_FALSE(manager_.Got("READY=1") || manager_.Got("WATCHDOG=1")) << manager_.messages();
  does_ = Does::SendFrames;
  EXPECT_TRUE(LookUntil("[READY=1]"));
  EXPECT_TRUE(LookUntil("[WATCHDOG=1]"));
  does_ = Does::SendNothing;  // the tracker is silent, but the program does not hang
  manager_.Forget();
  EXPECT_TRUE(LookUntil("[WATCHDOG=1]"));

  does_ = Does::Hang;
  ASSERT_TRUE(WaitUntil([&] { return hangs_.load(); }));
  constexpr Milliseconds kPeriod{200};
  LookUntil("the sign of life for the last pass", kPeriod);
  manager_.Forget();
  EXPECT_FALSE(LookUntil("[WATCHDOG=1]", 2 * kPeriod));
  does_ = Does::SendFrames;
  EXPECT_TRUE(LookUntil("[WATCHDOG=1]"));

  manager_.Forget();
  report_->Stopping();
  report_->Look();
  report_->Stopping();
  EXPECT_TRUE(manager_.Got("[STOPPING=1]"));
  EXPECT_EQ(manager_.messages(), "[STOPPING=1]");
}

TEST_F(Report, KeepsNoWatchdogOfAnotherProcess) {
  EXPECT_EQ(ServiceManager().WatchdogPeriod(), Milliseconds(200));
  SetVariable("WATCHDOG_PID", "1");
  EXPECT_EQ(ServiceManager().WatchdogPeriod(), std::nullopt);
  UnsetVariable("WATCHDOG_PID");
}

// Starts the program as the manager does: standard error is the stream that JOURNAL_STREAM names.
ChildProcess StartInJournal(std::vector<std::string> arguments, const Manager& manager) {
  arguments.insert(arguments.begin(),
                   {"-c", "JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/2) exec \"$0\" \"$@\"",
                    KINETREL_BIN_DIR "/kinetrel"});
  return {
      "/bin/sh",
      arguments,
      {.environment = {{"NOTIFY_SOCKET", manager.address()}, {"KINETREL_COM3", "no-such-device"}}}};
}

// The level of each line, and whether every line has one.
bool EveryLineHasALevel(const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const bool level = line.size() > 4 && line[0] == '<' && line[1] >= '3' && line[1] <= '6' &&
                       line[2] == '>' && line[3] != ' ' && line[3] != '\t';
    if (!level) return false;
  }
  return true;
}

TEST(Journal, GetsWholeLinesWithLevels) {
  Manager manager;
  FreeSlot slot;
  ChildProcess program = StartInJournal(Simulated(slot), manager);
  EXPECT_TRUE(WaitUntil([&] { return manager.Got("[READY=1]"); }));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_TRUE(manager.Got("[STOPPING=1]"));
  EXPECT_TRUE(EveryLineHasALevel(program.error())) << program.error();
  EXPECT_NE(program.error().find("\n<6>Rate = "), std::string::npos) << program.error();
  EXPECT_NE(program.error().find("\n<5>Closing\n"), std::string::npos) << program.error();
  EXPECT_EQ(program.output(), "");

  ChildProcess failing = StartInJournal({"-d2", "-p3"}, manager);
  EXPECT_EQ(failing.Wait(), 254);
  EXPECT_NE(failing.error().find("\n<3>Port(3) failed to open(13).\n"), std::string::npos)
      << failing.error();
  ChildProcess mistaken = StartInJournal({"--device", "fastrakk"}, manager);
  EXPECT_EQ(mistaken.Wait(), 255);
  EXPECT_NE(mistaken.error().find("\n<3>--device wants "), std::string::npos) << mistaken.error();
}

TEST(Journal, IsNotTheTerminalThatInheritedItsVariable) {
  FreeSlot slot;
  ChildProcess program("kinetrel", Simulated(slot),
                       {.environment = {{"JOURNAL_STREAM", "8:1234"}}});
  EXPECT_TRUE(program.ExpectError("\n\tRate = "));
}

// The unit with the programs of this build; systemd takes it without a word and rates its exposure
// at most 3.0 of 10.
constexpr const char* kCheckUnit = R"(
set -e
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
unit=$folder/kinetrel@try.service
sed "s|@CMAKE_INSTALL_FULL_BINDIR@|$0|; s|@restart_back_off@||" "$1/packaging/kinetrel@.service.in" >"$unit"
systemd-analyze verify --man=no "$unit"
systemd-analyze security --offline=yes --threshold=30 "$unit" >/dev/null
)";

TEST(Unit, IsCleanAndSafeToSystemd) {
  if (::access("/usr/bin/systemd-analyze", X_OK) != 0) GTEST_SKIP() << "systemd is not installed";
  ChildProcess check("/bin/sh", {"-c", kCheckUnit, KINETREL_BIN_DIR, KINETREL_SOURCE_DIR});
  EXPECT_EQ(check.Wait(), 0);
  EXPECT_EQ(check.error(), "");
}

}  // namespace
}  // namespace kinetrel::test

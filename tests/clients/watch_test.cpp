// kinetrel-watch as its users meet it: a process beside a tracker's, joined by shared memory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/clients/tracker.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/support/json_check.h"
#include "tests/support/pseudo_terminal.h"

namespace kinetrel::test {
namespace {

using Strings = std::vector<std::string>;

constexpr const char* kShowCursor = "\x1b[?25h";
constexpr const char* kHideCursor = "\x1b[?25l";

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

int Occurrences(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

Strings Lines(const std::string& text) {
  std::istringstream stream(text);
  Strings lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

class Watch : public testing::Test {
 protected:
  std::unique_ptr<ChildProcess> Start(Strings arguments = {}) const {
    return std::make_unique<ChildProcess>("kinetrel-watch", WithSlot(std::move(arguments)));
  }

  // On a terminal.
  std::unique_ptr<ChildProcess> Start(PseudoTerminal& terminal, Strings arguments = {}) const {
    return std::make_unique<ChildProcess>(
        "kinetrel-watch", WithSlot(std::move(arguments)),
        ChildProcess::Options{.terminal = &terminal, .environment = {{"TERM", "xterm"}}});
  }

  std::unique_ptr<ChildProcess> StartWriter(const std::string& periodMs) const {
    return std::make_unique<ChildProcess>(
        "kinetrel-test-writer", Strings{std::to_string(slot_.device()), "1", "3", periodMs});
  }

  void OpenTracker() { tracker_ = std::make_unique<Tracker>(slot_); }

  bool PublishUntilShown(ChildProcess& watch) {
    return tracker_->PublishUntil([&] { return !watch.output().empty(); });
  }

  Strings WithSlot(Strings arguments) const {
    arguments.insert(arguments.end(), {"--slot", std::to_string(slot_.slot())});
    return arguments;
  }

  FreeSlot slot_;
  std::unique_ptr<Tracker> tracker_;
};

// ---- Writers come and go -----------------------------------------------------------------------

TEST_F(Watch, WaitsForTheTrackerAndSaysSoOnce) {
  const auto watch = Start();
  ASSERT_TRUE(watch->ExpectError("waiting for a tracker on slot " + std::to_string(slot_.slot())));
  OpenTracker();
  ASSERT_TRUE(tracker_->Publish());
  ASSERT_TRUE(watch->ExpectOutput("frame 1 "));
  EXPECT_TRUE(
      Contains(watch->output(), "sensor 1 position 1.00000 -2.50000 3.00000 angles 0.50000"));
  EXPECT_TRUE(watch->ExpectError("frames from Test tracker"));
  EXPECT_EQ(Occurrences(watch->error(), "waiting"), 1);
}

TEST_F(Watch, GoesOnWhenTheTrackerComesBack) {
  OpenTracker();
  const auto watch = Start();
  ASSERT_TRUE(PublishUntilShown(*watch));
  ASSERT_TRUE(tracker_->Publish(FillBlock, 1000));
  ASSERT_TRUE(watch->ExpectOutput("frame 1000 "));
  tracker_.reset();
  ASSERT_TRUE(watch->ExpectError("has closed"));
  OpenTracker();  // counts from 0 again
  ASSERT_TRUE(tracker_->Publish(FillBlock, 7));
  EXPECT_TRUE(watch->ExpectOutput("frame 7 "));
  EXPECT_TRUE(watch->ExpectError("frames from Test tracker"));
}

TEST_F(Watch, FollowsACountThatGoesRound) {
  OpenTracker();
  const auto watch = Start();
  ASSERT_TRUE(PublishUntilShown(*watch));
  ASSERT_TRUE(tracker_->Publish(FillBlock, INT_MAX));
  ASSERT_TRUE(watch->ExpectOutput("frame 2147483647 "));
  ASSERT_TRUE(tracker_->Publish());
  EXPECT_TRUE(watch->ExpectOutput("frame -2147483648 "));
  ASSERT_TRUE(tracker_->Publish());
  EXPECT_TRUE(watch->ExpectOutput("frame -2147483647 "));
}

TEST_F(Watch, SaysThatAKilledTrackerIsSilentAndTakesTheNextOne) {
  const auto watch = Start();
  auto writer = StartWriter("5");
  ASSERT_TRUE(watch->ExpectOutput("frame "));
  writer->Signal(SIGKILL);
  ASSERT_EQ(writer->Wait(), -SIGKILL);
  ASSERT_TRUE(watch->ExpectError("no new frames for 2 s"));
  EXPECT_FALSE(Contains(watch->error(), "closed"));
  writer = StartWriter("5");
  EXPECT_TRUE(watch->ExpectError("no new frames for 2 s\nkinetrel-watch: frames from Test writer"));
}

TEST_F(Watch, SurvivesATrackerThatDiedWithTheMutex) {
  const auto watch = Start();
  ASSERT_TRUE(watch->ExpectError("waiting"));
  ASSERT_EQ(StartWriter("0")->Wait(), -SIGKILL);
  ASSERT_TRUE(watch->ExpectOutput("frame 1 "));
  OpenTracker();
  ASSERT_TRUE(tracker_->Publish(FillBlock, 42));
  EXPECT_TRUE(watch->ExpectOutput("frame 42 "));
}

TEST_F(Watch, NeverShowsAnOldFrameAsNew) {
  OpenTracker();
  ASSERT_TRUE(tracker_->Publish());
  const auto watch = Start({"--once", "--timeout", "0.6"});
  EXPECT_EQ(watch->Wait(), 3);
  EXPECT_EQ(watch->output(), "");
}

// ---- The tracker's peace -----------------------------------------------------------------------

TEST_F(Watch, StoppedDoesNotHoldUpTheTracker) {
  OpenTracker();
  const auto watch = Start();
  ASSERT_TRUE(PublishUntilShown(*watch));
  watch->Signal(SIGSTOP);
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(tracker_->Publish());
  ASSERT_TRUE(tracker_->Publish(FillBlock, 123456));
  watch->Signal(SIGCONT);
  EXPECT_TRUE(watch->ExpectOutput("frame 123456 "));
}

long Sleeps(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  const std::string head = "voluntary_ctxt_switches:";
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(head)) return std::stol(line.substr(head.size()));
  }
  return -1;
}

TEST_F(Watch, HardlyWakesWhileNothingComes) {
  OpenTracker();
  const auto watch = Start();
  ASSERT_TRUE(PublishUntilShown(*watch));
  // Counted between two moments that the program itself tells: its silence begins, and 3 s pass.
  ASSERT_TRUE(watch->ExpectError("no new frames"));
  const long before = Sleeps(watch->pid());
  SleepFor(Milliseconds(3000));
  const long woken = Sleeps(watch->pid()) - before;
  EXPECT_LE(woken, 3 * 5 + 2);
}

// ---- Ways out ----------------------------------------------------------------------------------

struct EndCase {
  const char* name;
  Strings arguments;
  int code;
  int lines;
  const char* error;
};
class Ends : public Watch, public testing::WithParamInterface<EndCase> {};

TEST_P(Ends, AsAsked) {
  OpenTracker();
  const auto watch = Start(GetParam().arguments);
  int code = ChildProcess::kStillRuns;
  const auto ended = [&] {
    code = watch->Wait(std::chrono::milliseconds(2));
    return code != ChildProcess::kStillRuns;
  };
  ASSERT_TRUE(GetParam().lines > 0 ? tracker_->PublishUntil(ended) : WaitUntil(ended));
  EXPECT_EQ(code, GetParam().code);
  EXPECT_EQ(Lines(watch->output()).size(), static_cast<std::size_t>(GetParam().lines));
  EXPECT_EQ(watch->error(), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Watch, Ends,
    testing::Values(
        EndCase{"Once", {"--once"}, 0, 1, ""},
        EndCase{"AfterFrames", {"--frames=3", "--json"}, 0, 3, ""},
        EndCase{"Timeout", {"--timeout", "0.25"}, 3, 0, "kinetrel-watch: no frame for 0.25 s\n"},
        EndCase{"BadArgument",
                {"--slot", "17", "--json"},
                2,
                0,
                "kinetrel-watch: --slot wants a number from 1 to 16, not '17' (see kinetrel-watch "
                "--help)\n"},
        EndCase{"Version", {"--version"}, 0, 1, ""}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Watch, EndsCleanlyWhenAsked) {
  OpenTracker();
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const auto watch = Start();
    ASSERT_TRUE(PublishUntilShown(*watch));
    watch->Signal(signal);
    EXPECT_EQ(watch->Wait(), 0);
    EXPECT_EQ(watch->error(), "");
    EXPECT_TRUE(watch->output().ends_with('\n'));
  }
}

TEST_F(Watch, EndsQuietlyWithTheReaderOfItsOutput) {
  OpenTracker();
  const std::string program = std::string(KINETREL_BIN_DIR) + "/kinetrel-watch";
  ChildProcess shell("/bin/sh", {"-c", "('" + program + "' --slot " + std::to_string(slot_.slot()) +
                                           "; echo code $? >&2) | head -n 1"});
  EXPECT_TRUE(tracker_->PublishUntil([&] { return Contains(shell.error(), "code"); }));
  EXPECT_EQ(shell.error(), "code 0\n");
  EXPECT_EQ(Lines(shell.output()).size(), 1U);
}

TEST_F(Watch, SaysWhyItCannotOpen) {
  const std::string digits = "0123456789ABCDEF";
  const std::string name =
      std::string("/KinetrelShMem") + digits[static_cast<std::size_t>(slot_.device())] + "0";
  const int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_len = 1;
  ASSERT_EQ(::ftruncate(fd, 10) + ::fcntl(fd, F_OFD_SETLK, &lock), 0);
  const auto watch = Start();
  EXPECT_EQ(watch->Wait(), 1);
  EXPECT_TRUE(Contains(watch->error(), "an object of another size has the name"));
  ::shm_unlink(name.c_str());
  ::close(fd);
}

// ---- What it shows -----------------------------------------------------------------------------

struct BlockCase {
  const char* name;
  void (*fill)(SharedTrackBlock&);
};
class Shows : public Watch, public testing::WithParamInterface<BlockCase> {};

TEST_P(Shows, NothingButJson) {
  OpenTracker();
  const auto watch = Start({"--json", "--frames", "3"});
  const auto ended = [&] { return watch->Wait(std::chrono::milliseconds(1)) == 0; };
  ASSERT_TRUE(tracker_->PublishUntil(ended, GetParam().fill));
  const Strings lines = Lines(watch->output());
  EXPECT_EQ(lines.size(), 3U);
  for (const std::string& line : lines) EXPECT_TRUE(IsJson(line)) << line;
}

TEST_P(Shows, NothingButPrintableLines) {
  OpenTracker();
  const auto watch = Start({"--frames", "3", "--degrees"});
  const auto ended = [&] { return watch->Wait(std::chrono::milliseconds(1)) == 0; };
  ASSERT_TRUE(tracker_->PublishUntil(ended, GetParam().fill));
  EXPECT_EQ(Lines(watch->output()).size(), 3U);
  for (const char byte : watch->output()) {
    ASSERT_TRUE(byte == '\n' || (byte >= ' ' && byte <= '~')) << static_cast<int>(byte);
  }
}

INSTANTIATE_TEST_SUITE_P(Watch, Shows,
                         testing::Values(BlockCase{"OfATracker", FillBlock},
                                         BlockCase{"OfNaN", FillWithNaN},
                                         BlockCase{"OfEscapes", FillWithEscapes},
                                         BlockCase{"OfNoise", FillWithNoise}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Watch, ShowsATableOnATerminalAndLeavesTheCursor) {
  PseudoTerminal terminal(PseudoTerminal::Mode::Cooked);
  const auto watch = Start(terminal);
  ASSERT_TRUE(terminal.Expect("waiting for a tracker"));
  OpenTracker();
  ASSERT_TRUE(tracker_->PublishUntil([&] { return Contains(terminal.Received(), "running"); }));
  EXPECT_TRUE(terminal.Expect("Test tracker"));
  EXPECT_TRUE(terminal.Expect("     3  -100.000   200.000  -300.000    3.1416"));
  watch->Signal(SIGINT);
  EXPECT_EQ(watch->Wait(), 0);
  const std::string shown = terminal.Received();
  EXPECT_GT(Occurrences(shown, kHideCursor), 1);
  EXPECT_GT(shown.rfind(kShowCursor), shown.rfind(kHideCursor));
  EXPECT_TRUE(shown.ends_with(kShowCursor));
}

TEST_F(Watch, EndsWithAKey) {
  PseudoTerminal terminal(PseudoTerminal::Mode::Cooked);
  const auto watch = Start(terminal);
  ASSERT_TRUE(terminal.Expect("waiting for a tracker"));
  terminal.Send("q");
  EXPECT_EQ(watch->Wait(), 0);
}

}  // namespace
}  // namespace kinetrel::test

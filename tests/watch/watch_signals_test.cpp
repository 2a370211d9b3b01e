// kinetrel-watch and what Linux does with a process: signals, shells, terminals.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <memory>
#include <string>

#include "tests/support/pseudo_terminal.h"
#include "tests/watch/tracker.h"

namespace kinetrel::test {
namespace {

constexpr const char* kShowCursor = "\x1b[?25h";
constexpr const char* kHideCursor = "\x1b[?25l";

class WatchProcess : public Watch {};

// ---- The tracker's peace -----------------------------------------------------------------------

TEST_F(WatchProcess, StoppedDoesNotHoldUpTheTracker) {
  const auto watch = StartShowing();
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

TEST_F(WatchProcess, RarelyWakesWithoutFrames) {
  const auto watch = StartShowing();
  // Counted between two moments that the program itself tells: its silence begins, and 3 s pass.
  ASSERT_TRUE(watch->ExpectError("no new frames"));
  const long before = Sleeps(watch->pid());
  SleepFor(Milliseconds(3000));
  const long woken = Sleeps(watch->pid()) - before;
  EXPECT_LE(woken, 3 * 5 + 2);
}

TEST_F(WatchProcess, EndsCleanlyWhenAsked) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const auto watch = StartShowing();
    watch->Signal(signal);
    EXPECT_EQ(watch->Wait(), 0);
    EXPECT_EQ(watch->error(), "");
    EXPECT_TRUE(watch->output().ends_with('\n'));
  }
}

TEST_F(WatchProcess, EndsQuietlyWithTheReaderOfItsOutput) {
  OpenTracker();
  const std::string program = std::string(KINETREL_BIN_DIR) + "/kinetrel-watch";
  ChildProcess shell("/bin/sh",
                     {"-c", "('" + program + "' --block --slot " + std::to_string(slot_.slot()) +
                                "; echo code $? >&2) | head -n 1"});
  EXPECT_TRUE(tracker_->PublishUntil([&] { return Contains(shell.error(), "code"); }));
  EXPECT_EQ(shell.error(), "code 0\n");
  EXPECT_EQ(Lines(shell.output()).size(), 1U);
}

TEST_F(WatchProcess, SaysWhyItCannotOpen) {
  const Result<NamedMemory> other = NamedMemory::Open(BlockName(slot_.device(), 0), 10);
  ASSERT_TRUE(other.Ok());
  const auto watch = Start();
  EXPECT_EQ(watch->Wait(), 1);
  EXPECT_TRUE(Contains(watch->error(), "an object of another size has the name"));
}

// ---- On a terminal -----------------------------------------------------------------------------

TEST_F(WatchProcess, ShowsATableOnATerminalAndLeavesTheCursor) {
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

TEST_F(WatchProcess, EndsWithAKey) {
  PseudoTerminal terminal(PseudoTerminal::Mode::Cooked);
  const auto watch = Start(terminal);
  ASSERT_TRUE(terminal.Expect("waiting for a tracker"));
  terminal.Send("q");
  EXPECT_EQ(watch->Wait(), 0);
}

}  // namespace
}  // namespace kinetrel::test

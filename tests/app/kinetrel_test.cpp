// The program as the operator runs it: a real process on a real terminal, and a client that reads.

#include <gtest/gtest.h>
#include <signal.h>
#include <termios.h>

#include <cmath>

#include "publish/shared_track_reader.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/support/pseudo_terminal.h"

namespace kinetrel::test {
namespace {

// The block of a slot once it counts that many frames.
SharedTrackBlock AwaitFrames(SharedTrackReader& reader, int count) {
  SharedTrackBlock block{};
  EXPECT_TRUE(WaitUntil([&] {
    return reader.OpenOnly(0) && reader.Copy(block, Milliseconds(1000)) && block.frameCount > count;
  }));
  return block;
}

class Program : public testing::Test {
 protected:
  void Start(std::vector<std::string> more = {}) {
    program_.emplace("kinetrel", Simulated(slot_, std::move(more)),
                     ChildProcess::Options{.terminal = &terminal_});
    ASSERT_TRUE(terminal_.Expect("Running ..."));
  }

  int Wait() {
    const bool ended = WaitUntil([&] {
      terminal_.Received();  // a full terminal would block the program
      return program_->Wait(std::chrono::milliseconds(1)) != ChildProcess::kStillRuns;
    });
    return ended ? program_->Wait() : ChildProcess::kStillRuns;
  }

  bool TerminalIsAsBefore() const { return SameSettings(before_, terminal_.Settings()); }

  FreeSlot slot_;
  PseudoTerminal terminal_{PseudoTerminal::Mode::Cooked};
  const termios before_ = terminal_.Settings();
  std::optional<ChildProcess> program_;
};

TEST_F(Program, RunsFromTheCommandLineToAClientAndBack) {
  Start({"-s0x3"});
  SharedTrackReader reader(slot_.device());
  SharedTrackBlock block = AwaitFrames(reader, 4);
  EXPECT_EQ(DeviceNameOf(block), "OrvixTraject");
  EXPECT_EQ(block.writerPresent, 1);
  EXPECT_EQ(block.flags, 0x133U);
  // Sensor 0 moves on a circle of 80 cm, sensor 1 on one of three times that.
  EXPECT_NEAR(std::hypot(block.poses[0][0], block.poses[0][1]), 80.0, 1e-3);
  EXPECT_NEAR(std::hypot(block.poses[1][0], block.poses[1][1]), 240.0, 1e-3);

  terminal_.Send("\x01");
  EXPECT_TRUE(terminal_.Expect("\rRunning ... (Azimuth Zeroed) "));
  EXPECT_TRUE(WaitUntil([&] {
    return reader.Copy(block, Milliseconds(1000)) && std::abs(block.poses[1][3]) < 1.0F;
  }));
  terminal_.Send("a");
  EXPECT_TRUE(terminal_.Expect("\r                                \rRunning ... "));
  terminal_.Send("\x1b");
  EXPECT_EQ(Wait(), 0);
  EXPECT_TRUE(terminal_.Expect(" frames sampled."));
  EXPECT_TRUE(terminal_.Expect("MTS closed."));
  EXPECT_TRUE(TerminalIsAsBefore());
  EXPECT_TRUE(reader.Copy(block, Milliseconds(1000)));
  EXPECT_EQ(block.writerPresent, 0);
}

// Keys are acted on in turn, so the first answer to Ctrl-A shows that all before it were passed by.
TEST_F(Program, KeysThatMeanNothingDoNothing) {
  Start();
  terminal_.Send("bz\x1b[A\xff\x01");  // two letters, the Up key, an invalid byte, Ctrl-A
  ASSERT_TRUE(terminal_.Expect("\rRunning ... (Azimuth Zeroed) "));
  const std::string shown = terminal_.Received();
  EXPECT_EQ(shown.find("Azimuth"), shown.rfind("Azimuth"));
  EXPECT_EQ(shown.find("\r                                \r"), std::string::npos);
  EXPECT_EQ(program_->Wait(std::chrono::milliseconds(1)), ChildProcess::kStillRuns);
}

// The keyboard tracker and the console loop both look for keys. Each key reaches the right one,
// however slowly the operator types.
TEST_F(Program, TypingReachesTheKeyboardTrackerWhole) {
  Start({"-s0x8"});
  for (int round = 1; round <= 12; ++round) {
    terminal_.Send("x");
    for (const char digit : std::to_string(1000 + round)) {
      ASSERT_TRUE(terminal_.Expect("Enter value for X: "));
      terminal_.Send(std::string(1, digit));
      SleepFor(Milliseconds(20));
    }
    terminal_.Send("\r");
    ASSERT_TRUE(terminal_.Expect("New value for X = 10" + std::string(round < 10 ? "0" : "") +
                                 std::to_string(round) + ".000000"));
  }
  terminal_.Send("\x1b");
  EXPECT_EQ(Wait(), 0);
}

// Frames of several streaming sensors take long. The console loop must not take a key meanwhile.
TEST_F(Program, TypingAheadReachesTheKeyboardTrackerWhole) {
  Start({"-s0xF", "-z+"});
  for (int round = 1; round <= 5; ++round) {
    const std::string number = std::to_string(1000 + round);
    terminal_.Send("x" + number + "\r");
    ASSERT_TRUE(terminal_.Expect("New value for X = " + number + ".000000")) << round;
  }
  terminal_.Send("\x1b");
  EXPECT_EQ(Wait(), 0);
}

TEST(QuietProgram, ShowsNoBlinkingCursor) {
  FreeSlot loudSlot;
  ChildProcess loud("kinetrel", Simulated(loudSlot));
  ASSERT_TRUE(loud.ExpectOutput("*\b"));
  SharedTrackReader loudReader(loudSlot.device());
  const int frames = AwaitFrames(loudReader, 0).frameCount;
  FreeSlot slot;
  ChildProcess quiet("kinetrel", Simulated(slot, {"--quiet"}));
  SharedTrackReader reader(slot.device());
  AwaitFrames(reader, frames);
  EXPECT_EQ(quiet.output().find('\b'), std::string::npos);
}

class EndedBySignal : public Program, public testing::WithParamInterface<int> {};

TEST_P(EndedBySignal, EndsAsByEscape) {
  Start();
  program_->Signal(GetParam());
  EXPECT_EQ(Wait(), 0);
  EXPECT_TRUE(terminal_.Expect("MTS closed."));
  EXPECT_TRUE(TerminalIsAsBefore());
}

INSTANTIATE_TEST_SUITE_P(App, EndedBySignal, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& row) { return std::string(sigabbrev_np(row.param)); });

TEST(ProgramInput, AFileOfAnyBytesDoesNoHarm) {
  FreeSlot slot;
  ChildProcess program("kinetrel", Simulated(slot, {"-s0xF"}));
  std::string bytes;
  for (int i = 0; i < 4096; ++i) bytes += static_cast<char>(i * 31 % 256);
  std::erase(bytes, '\x1b');
  program.Send(bytes);
  program.CloseInput();
  ASSERT_TRUE(program.ExpectError("Running ..."));
  EXPECT_EQ(program.Wait(std::chrono::milliseconds(1500)), ChildProcess::kStillRuns);
  program.Signal(SIGINT);
  EXPECT_EQ(program.Wait(), 0);
}

// Printed text reaches neither the block nor its mutex.
TEST(ProgramOutput, MayBeMissing) {
  FreeSlot slot;
  ChildProcess program("kinetrel", Simulated(slot), {.noStreams = true});
  SharedTrackReader reader(slot.device());
  EXPECT_EQ(DeviceNameOf(AwaitFrames(reader, 150)), "OrvixTraject");
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
}

// The terminal takes no output. The poses go on all the same.
TEST(ProgramOutput, SamplingGoesOnWhenTheTerminalIsStopped) {
  FreeSlot slot;
  PseudoTerminal terminal(PseudoTerminal::Mode::Cooked);
  ChildProcess program("kinetrel", Simulated(slot, {"-s0xF"}), {.terminal = &terminal});
  ASSERT_TRUE(terminal.Expect("Running ..."));
  terminal.Send("\x13x");  // Ctrl-S, and a key that makes the program print a line
  SharedTrackReader reader(slot.device());
  AwaitFrames(reader, 150);  // past two blinks
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
}

}  // namespace
}  // namespace kinetrel::test

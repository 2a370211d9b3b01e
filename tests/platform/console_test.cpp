#include "platform/console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>

#include "platform/clock.h"
#include "platform/signals.h"
#include "tests/support/pseudo_terminal.h"
#include "tests/support/terminal_job.h"
#include "tests/support/wait_until.h"

namespace kinetrel {
namespace {

using test::PseudoTerminal;
using test::SameSettings;
using test::TerminalJob;
using test::WaitUntil;
using Place = TerminalJob::Place;

// ---- Standard input other than our terminal -------------------------------------------------

// Replaces standard input during a test.
class StandardInput {
 public:
  explicit StandardInput(int fd) : saved_(::fcntl(0, F_DUPFD_CLOEXEC, 3)) {
    if (fd >= 0) {
      ::dup2(fd, 0);
    } else {
      ::close(0);
    }
  }
  ~StandardInput() {
    ::dup2(saved_, 0);
    ::close(saved_);
  }
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

 private:
  int saved_;
};

class PipedInput {
 public:
  PipedInput() {
    if (::pipe2(ends_, O_CLOEXEC) != 0) ends_[0] = ends_[1] = -1;
    input_.emplace(ends_[0]);
  }
  ~PipedInput() {
    End();
    ::close(ends_[0]);
  }
  void Send(const std::string& bytes) const {
    EXPECT_EQ(::write(ends_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void End() {
    if (ends_[1] >= 0) ::close(ends_[1]);
    ends_[1] = -1;
  }

 private:
  int ends_[2];
  std::optional<StandardInput> input_;
};

std::string TextOf(const std::optional<Key>& key) {
  if (!key) return "none";
  return (key->extended ? "x" : "") + std::to_string(key->code);
}

TEST(PipedKeys, AreTheBytesUntilThePipeEnds) {
  PipedInput pipe;
  const KeySession session;
  EXPECT_EQ(TextOf(TakeKey()), "none");
  pipe.Send("a\x01\x1B[A\x1B");
  EXPECT_EQ(TextOf(TakeKey()), "97");
  EXPECT_EQ(TextOf(TakeKey()), "1");
  EXPECT_EQ(TextOf(TakeKey()), "x72");
  EXPECT_EQ(TextOf(TakeKey()), "27");  // while the pipe is open
  pipe.Send("b\x1B");
  pipe.End();
  EXPECT_EQ(TextOf(TakeKey()), "98");
  EXPECT_EQ(TextOf(TakeKey()), "27");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(TextOf(TakeKey()), "none");
}

TEST(StandardInputWithoutKeys, IsSilent) {
  struct Row {
    const char* name;
    int fd;
  };
  const int directory = ::open("/", O_RDONLY | O_CLOEXEC);
  const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  for (const Row& row : {Row{"closed", -1}, Row{"a directory", directory}, Row{"empty", nothing}}) {
    SCOPED_TRACE(row.name);
    const StandardInput input(row.fd);
    const KeySession session;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(TextOf(TakeKey()), "none");
  }
  ::close(directory);
  ::close(nothing);
}

TEST(Session, ASecondOneInAProcessDoesNothing) {
  PipedInput pipe;
  pipe.Send("ab");
  EXPECT_EQ(TextOf(TakeKey()), "none");  // without a session
  const KeySession session;
  { const KeySession second; }
  EXPECT_EQ(TextOf(TakeKey()), "97");
}

TEST(PutBack, IsTakenFirstAndEndsWithTheSession) {
  PipedInput pipe;
  pipe.Send("a");
  {
    const KeySession session;
    PushBackKey({27, false});
    PushBackKey({0x48, true});
    EXPECT_EQ(TextOf(TakeKey()), "x72");
    EXPECT_EQ(TextOf(TakeKey()), "27");
    for (int i = 0; i < 100; ++i) PushBackKey({i, false});
    EXPECT_EQ(TextOf(TakeKey()), "15");  // the first sixteen are kept
  }
  const KeySession next;
  EXPECT_EQ(TextOf(TakeKey()), "97");
}

TEST(HungUpTerminal, IsSilentAfterWhatWasTyped) {
  PseudoTerminal terminal(PseudoTerminal::Mode::Cooked);
  const StandardInput input(terminal.nearEnd());
  const KeySession session;
  terminal.Send("a");
  std::string typed;
  EXPECT_TRUE(WaitUntil([&] { return (typed = TextOf(TakeKey())) != "none"; }));
  EXPECT_EQ(typed, "97");
  terminal.HangUp();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(TextOf(TakeKey()), "none");
}

std::atomic<int> foreignCalls{0};
void CountForeignCall(int) { ++foreignCalls; }

TEST(Signals, AHandlerOfOtherCodeStays) {
  PseudoTerminal terminal(PseudoTerminal::Mode::Cooked);
  const StandardInput input(terminal.nearEnd());
  const auto before = ::signal(SIGUSR1, CountForeignCall);
  {
    const KeySession session;
    ::raise(SIGUSR1);
    EXPECT_EQ(foreignCalls.load(), 1);
  }
  EXPECT_EQ(::signal(SIGUSR1, before), CountForeignCall);
  EXPECT_EQ(::signal(SIGUSR2, SIG_DFL), SIG_DFL);  // the session removed its handler
}

// ---- A job on a terminal -------------------------------------------------------------------

void Say(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

// The job of most stories. It prints each key; 'q' returns, 'e' exits, 'a' aborts.
int SayKeys() {
  const KeySession session;
  Say("ready ");
  for (int rounds = 0;; ++rounds) {
    const std::optional<Key> key = TakeKey();
    if (key) Say("<" + TextOf(key) + ">");
    if (key == Key{'q', false}) return 0;
    if (key == Key{'e', false}) std::exit(3);
    if (key == Key{'a', false}) std::abort();
    if (rounds % 100 == 0) Say(".");  // a sign of life
    SleepFor(Milliseconds{1});
  }
}

// Returns the number of the signal that asked it to stop, once 'q' is typed.
int StopWhenAsked() {
  static std::atomic<int> request{0};
  CatchStopSignals(request);
  const KeySession session;
  Say("ready ");
  bool told = false;
  while (TakeKey() != Key{'q', false}) {
    if (request != 0 && !std::exchange(told, true)) {
      SleepFor(2 * kOneStopWish);  // what comes now is another request
      Say("asked ");
    }
    SleepFor(Milliseconds{1});
  }
  return request;
}

// Signals the process and then its group, as `timeout` does.
int StopWhenAskedTwiceInOneBreath() {
  static std::atomic<int> request{0};
  CatchStopSignals(request);
  ::raise(SIGINT);
  ::raise(SIGTERM);
  return request;
}

int StopWhenAskedUnderNohup() {
  ::signal(SIGHUP, SIG_IGN);
  return StopWhenAsked();
}

int StopWhenAskedInsideSession() {
  const KeySession session;
  return StopWhenAsked();
}

// A terminal, and a job on it.
class Terminal : public testing::Test {
 protected:
  void Start(const std::function<int()>& job, Place place = Place::Foreground) {
    job_.emplace(terminal_, place, job);
  }
  // Starts a job and waits until it reads keys.
  void StartReady(const std::function<int()>& job) {
    Start(job);
    ASSERT_TRUE(terminal_.Expect("ready "));
  }
  bool IsInKeyMode() const { return (terminal_.Settings().c_lflag & (ICANON | ECHO)) == 0; }
  bool IsAsBefore() const { return SameSettings(terminal_.Settings(), before_); }
  bool TakesKeysAndEnds() {
    if (!WaitUntil([&] { return IsInKeyMode(); })) return false;
    terminal_.Send("z");
    if (!terminal_.Expect("<122>")) return false;
    terminal_.Send("q");
    return job_->NextChange() == 0;
  }
  // Waits for signs of life. A job that the system stops does not give them.
  bool Lives() {
    const std::size_t sofar = terminal_.Received().size();
    return WaitUntil([&] { return terminal_.Received().size() >= sofar + 3; });
  }

  PseudoTerminal terminal_{PseudoTerminal::Mode::Cooked};
  const termios before_ = terminal_.Settings();
  std::optional<TerminalJob> job_;
};

struct Ending {
  const char* name;
  int (*job)();
  std::string typed;  // each byte follows the expected words; ' ' waits for "asked"
  int signal;         // then sent, unless 0
  int change;
};

class TerminalAsItWas : public Terminal, public testing::WithParamInterface<Ending> {};

TEST_P(TerminalAsItWas, AfterTheEnd) {
  StartReady(GetParam().job);
  ASSERT_TRUE(IsInKeyMode());
  for (const char byte : GetParam().typed) {
    if (byte == ' ') {
      ASSERT_TRUE(terminal_.Expect("asked "));
    } else {
      terminal_.Send(std::string(1, byte));
    }
  }
  if (GetParam().signal != 0) job_->Signal(GetParam().signal);
  EXPECT_EQ(job_->NextChange(), GetParam().change);
  EXPECT_TRUE(IsAsBefore());
}

INSTANTIATE_TEST_SUITE_P(
    Console, TerminalAsItWas,
    testing::Values(Ending{"Destructor", SayKeys, "q", 0, 0}, Ending{"Exit", SayKeys, "e", 0, 3},
                    Ending{"Abort", SayKeys, "a", 0, -SIGABRT},
                    Ending{"CtrlC", SayKeys, "\x03", 0, -SIGINT},
                    Ending{"CtrlBackslash", SayKeys, "\x1C", 0, -SIGQUIT},
                    Ending{"Terminated", SayKeys, "", SIGTERM, -SIGTERM},
                    Ending{"HungUp", SayKeys, "", SIGHUP, -SIGHUP},
                    Ending{"AnyOtherSignal", SayKeys, "", SIGUSR1, -SIGUSR1},
                    Ending{"AskedOnce", StopWhenAsked, "\x03 q", 0, SIGINT},
                    Ending{"AskedTwice", StopWhenAsked, "\x03 \x03", 0, -SIGINT},
                    Ending{"AskedTwiceDifferently", StopWhenAsked, "\x03 ", SIGTERM, -SIGTERM},
                    Ending{"AskedInsideSession", StopWhenAskedInsideSession, "\x03 \x03", 0,
                           -SIGINT}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Terminal, AnIgnoredSignalStaysIgnored) {
  StartReady(StopWhenAskedUnderNohup);
  job_->Signal(SIGHUP);
  job_->Signal(SIGTERM);
  ASSERT_TRUE(terminal_.Expect("asked "));
  terminal_.Send("q");
  EXPECT_EQ(job_->NextChange(), SIGTERM);
}

TEST_F(Terminal, ARequestThatArrivesTwiceCountsOnce) {
  Start(StopWhenAskedTwiceInOneBreath);
  EXPECT_EQ(job_->NextChange(), SIGINT);
}

TEST_F(Terminal, ABrokenPipeFailsTheWriteOnly) {
  Start([] {
    static std::atomic<int> request{0};
    CatchStopSignals(request);
    int ends[2];
    if (::pipe(ends) != 0) return 1;
    ::close(ends[0]);
    return ::write(ends[1], "x", 1) == -1 && errno == EPIPE ? 0 : 2;
  });
  EXPECT_EQ(job_->NextChange(), 0);
}

TEST_F(Terminal, InKeyModeKeepsSignalsAndOutputAndSeparatesEnterFromLineFeed) {
  StartReady(SayKeys);
  const termios during = terminal_.Settings();
  EXPECT_EQ(before_.c_lflag & ~during.c_lflag, static_cast<tcflag_t>(ICANON | ECHO));
  EXPECT_EQ(before_.c_iflag & ~during.c_iflag, static_cast<tcflag_t>(ICRNL));
  EXPECT_EQ(during.c_oflag, before_.c_oflag);
  terminal_.Send("\r\n\x7F\x1B[5;5~\x1B");
  EXPECT_TRUE(terminal_.Expect("<13>"));
  EXPECT_TRUE(terminal_.Expect("<10>"));
  EXPECT_TRUE(terminal_.Expect("<8>"));
  EXPECT_TRUE(terminal_.Expect("<x134>"));
  EXPECT_TRUE(terminal_.Expect("<27>"));
}

TEST_F(Terminal, KeepsWhatWasTypedAhead) {
  terminal_.Send("\x1B");
  Start(SayKeys);
  EXPECT_TRUE(terminal_.Expect("<27>"));
}

// ---- Suspension and background -------------------------------------------------------------

TEST_F(Terminal, IsReturnedOnASuspensionAndTakenAgain) {
  StartReady(SayKeys);
  for (int times = 0; times < 3; ++times) {
    ASSERT_TRUE(WaitUntil([&] { return IsInKeyMode(); }));
    terminal_.Send("\x1A");
    ASSERT_EQ(job_->NextChange(), TerminalJob::StoppedBy(SIGTSTP));
    EXPECT_TRUE(IsAsBefore());
    job_->Continue(Place::Foreground);
  }
  EXPECT_TRUE(TakesKeysAndEnds());
  EXPECT_TRUE(IsAsBefore());
}

TEST_F(Terminal, IsRepairedAfterAStopThatCannotBeCaught) {
  StartReady(SayKeys);
  job_->Signal(SIGSTOP);
  ASSERT_EQ(job_->NextChange(), TerminalJob::StoppedBy(SIGSTOP));
  ASSERT_EQ(::tcsetattr(terminal_.nearEnd(), TCSANOW, &before_), 0);  // as a shell does
  job_->Continue(Place::Foreground);
  EXPECT_TRUE(TakesKeysAndEnds());
  EXPECT_TRUE(IsAsBefore());
}

TEST_F(Terminal, IsLeftAloneByAJobUntilItIsMovedToTheFront) {
  Start(SayKeys, Place::Background);
  terminal_.Send("x\n");
  ASSERT_TRUE(Lives());
  EXPECT_TRUE(IsAsBefore());
  EXPECT_EQ(job_->NextChange(Milliseconds{0}), TerminalJob::kNothing);
  EXPECT_EQ(terminal_.Received().find("<"), std::string::npos);
  job_->Move(Place::Foreground);  // a shell sends no SIGCONT to a job that runs
  EXPECT_TRUE(terminal_.Expect("<120>"));
  EXPECT_TRUE(TakesKeysAndEnds());
  EXPECT_TRUE(IsAsBefore());
}

TEST_F(Terminal, IsLeftAloneByAJobThatEndsInTheBackground) {
  StartReady(SayKeys);
  terminal_.Send("\x1A");
  ASSERT_EQ(job_->NextChange(), TerminalJob::StoppedBy(SIGTSTP));
  job_->Continue(Place::Background);
  ASSERT_TRUE(Lives());
  termios ofAnother = terminal_.Settings();
  ofAnother.c_lflag &= ~static_cast<tcflag_t>(ECHO);  // as when another program asks for a password
  ASSERT_EQ(::tcsetattr(terminal_.nearEnd(), TCSANOW, &ofAnother), 0);
  ASSERT_TRUE(Lives());
  job_->Signal(SIGTERM);
  EXPECT_EQ(job_->NextChange(), -SIGTERM);
  EXPECT_TRUE(SameSettings(terminal_.Settings(), ofAnother));
}

TEST_F(Terminal, ReportsItsSizeAndKind) {
  const winsize size{50, 132, 0, 0};
  ASSERT_EQ(::ioctl(terminal_.nearEnd(), TIOCSWINSZ, &size), 0);
  Start([] {
    ::setenv("TERM", "dumb", 1);
    const bool dumb = EnableTerminalSequences();
    ::setenv("TERM", "xterm", 1);
    const TerminalSize told = StandardOutputSize();
    return StandardOutputIsTerminal() && told.columns == 132 && told.rows == 50 && !dumb &&
                   EnableTerminalSequences()
               ? 0
               : 1;
  });
  EXPECT_EQ(job_->NextChange(), 0);
}

}  // namespace
}  // namespace kinetrel

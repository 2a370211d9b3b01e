// Emulated devices on real pseudo-terminals, opened as a host opens a serial line.
#include "emulate/emulator.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "emulate/fastrak_emulator.h"
#include "platform/serial_line.h"
#include "tests/support/child_process.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

EmulatorThread StartFastrak(EmulatorOptions options, FastrakSettings settings = {}) {
  options.line.baud = 115200;
  auto thread = EmulatorThread::Start(
      std::make_unique<FastrakEmulator>(std::move(settings), MakeRamp()), std::move(options));
  if (!thread.Ok()) throw std::runtime_error(Describe(thread.status()));
  return std::move(*thread);
}

std::string LinkName(const std::string& name) {
  return testing::TempDir() + "kinetrel-" + name + "-" + std::to_string(::getpid());
}

// A host's end of the line.
class Host {
 public:
  explicit Host(const std::string& port, unsigned baud = 115200) : line_(Opened(port)) {
    LineSettings settings = *line_.Settings();
    settings.baud = baud;
    EXPECT_TRUE(line_.Apply(settings).Ok());
    // Reads wait, but not for ever.
    EXPECT_TRUE(line_.SetReadTimeouts({0, 0, 50}).Ok());
  }

  void Write(std::string_view text) {
    const auto wrote = line_.Write(std::as_bytes(std::span(text.data(), text.size())));
    EXPECT_TRUE(wrote.Ok() && *wrote == text.size());
  }

  bool ReadOnce(std::string& into) {
    std::byte bytes[256];
    const auto got = line_.Read(bytes);
    if (!got.Ok()) return false;
    into.append(reinterpret_cast<const char*>(bytes), *got);
    return true;
  }

  std::string ReadUntil(std::size_t count) {
    std::string text;
    WaitUntil([&] { return text.size() >= count || !ReadOnce(text); });
    return text;
  }

  std::string Ask(std::string_view text, std::size_t count) {
    Write(text);
    return ReadUntil(count);
  }

  bool WaitUntilHungUp() {
    std::string ignored;
    return WaitUntil([&] { return !ReadOnce(ignored); });
  }

 private:
  static SerialLine Opened(const std::string& port) {
    std::optional<SerialLine> line;
    WaitUntil([&] {
      auto opened = SerialLine::Open(port);
      if (opened.Ok()) line.emplace(std::move(*opened));
      return line.has_value();
    });
    if (!line) throw std::runtime_error("cannot open " + port);
    return std::move(*line);
  }

  SerialLine line_;
};

constexpr std::size_t kStatusLength = 55;

TEST(Emulator, AnswersOnARealPort) {
  const EmulatorThread emulator = StartFastrak({});
  Host host(emulator->Port());
  EXPECT_EQ(host.Ask("S", kStatusLength).substr(0, 3), "21S");
  EXPECT_EQ(host.Ask("O1,2\rl2,0\rl3,0\rl4,0\rl1\r", 9), "21l1000\r\n");
}

// Every frame once and in order, at the device's rate.
TEST(Emulator, StreamsAtItsRateWithoutALoss) {
  const EmulatorThread emulator = StartFastrak({});
  Host host(emulator->Port());
  host.Ask("O1,2,1\rO2,2,1\rl3,0\rl4,0\rul1\r", 9);
  const auto start = std::chrono::steady_clock::now();
  constexpr std::size_t frames = 120;
  constexpr std::size_t length = 3 + 21 + 2;
  const std::string text = host.Ask("C", 2 * frames * length);
  const auto time = std::chrono::steady_clock::now() - start;
  ASSERT_GE(text.size(), 2 * frames * length);
  for (std::size_t i = 0; i < 2 * frames; ++i) {
    ASSERT_EQ(text.substr(i * length, 2), i % 2 == 0 ? "01" : "02");
    ASSERT_EQ(RampFrame(std::stod(text.substr(i * length + 3, 7)), -50), i / 2);
  }
  EXPECT_GT(time, milliseconds(1990));  // 240 records at 120 a second
  EXPECT_EQ(emulator->BytesLost(), 0U);
}

TEST(Emulator, WhatIsSentToNobodyWaitsForNobody) {
  const EmulatorThread emulator = StartFastrak({}, {.receivers = 1});
  { Host(emulator->Port()).Ask("uC", 100); }
  const std::uint64_t sent = emulator->RecordsSent();
  ASSERT_TRUE(WaitUntil([&] { return emulator->RecordsSent() > sent + 60; }));
  const std::string text = Host(emulator->Port()).ReadUntil(200);
  const std::size_t record = text.find("\r\n01 ");
  ASSERT_NE(record, std::string::npos);
  EXPECT_GT(RampFrame(std::stod(text.substr(record + 5, 7)), -50), sent + 50);
}

TEST(Emulator, AtAWrongRateTheHostHearsNoise) {
  const EmulatorThread emulator = StartFastrak({}, {.start = FastrakStart::Streaming});
  Host host(emulator->Port(), 9600);
  // What came before the rate was set may be sound.
  host.ReadUntil(100);
  EXPECT_EQ(host.ReadUntil(2000).find("01 "), std::string::npos);
}

TEST(Emulator, UnpluggedThePortIsGoneAndComesBackUnderItsLink) {
  const std::string link = LinkName("replug");
  {
    const EmulatorThread emulator = StartFastrak({.link = link});
    {
      Host host(link);
      EXPECT_EQ(host.Ask("ufS", kStatusLength).substr(3, 3), "003");
      emulator->Unplug();
      EXPECT_TRUE(host.WaitUntilHungUp());
    }
    EXPECT_TRUE(WaitUntil([&] { return emulator->Port().empty(); }));
    EXPECT_FALSE(std::filesystem::is_symlink(link));
    EXPECT_EQ(SerialLine::Open(link).status().error, Error::NotFound);
    emulator->Plug();
    // The unit had its power all the time.
    EXPECT_EQ(Host(link).Ask("S", kStatusLength).substr(3, 3), "003");
    emulator->Strike({FaultKind::Unplug, 1.5});  // with nothing else to do meanwhile
    EXPECT_TRUE(WaitUntil([&] { return emulator->Port().empty(); }));
    EXPECT_TRUE(WaitUntil([&] { return emulator->Port() == link; }));
    EXPECT_EQ(Host(link).Ask("S", kStatusLength).size(), kStatusLength);
  }
  EXPECT_FALSE(std::filesystem::is_symlink(link));
}

TEST(Emulator, ALinkNeverReplacesAFile) {
  const EmulatorOptions options{.link = testing::TempDir()};
  const auto refused = EmulatorThread::Start(
      std::make_unique<FastrakEmulator>(FastrakSettings{}, MakeRamp()), options);
  EXPECT_EQ(refused.status().error, Error::Invalid);
  EXPECT_TRUE(std::filesystem::is_directory(testing::TempDir()));
}

// ---- The program -------------------------------------------------------------------------------

TEST(KinetrelEmulate, TellsItsPortShowsCommandsAndEndsCleanly) {
  const std::string link = LinkName("program");
  ChildProcess program("kinetrel-emulate",
                       {"fastrak", "--show", "--link", link, "--motion=hold:1,2,3",
                        "--fault=error:B@usr1", "--fault=unplug:0.1@usr2"},
                       {.emptyInput = true});
  ASSERT_TRUE(program.ExpectOutput("KINETREL_COM1=" + link + " kinetrel -d 2"));
  Host host(link);
  host.Ask("l1,0\rS", kStatusLength);
  EXPECT_TRUE(program.ExpectOutput("station 1 off"));
  program.Signal(SIGUSR1);
  EXPECT_TRUE(WaitUntil([&] { return host.Ask("S", kStatusLength).substr(6, 3) == " 66"; }));
  program.Signal(SIGUSR2);
  EXPECT_TRUE(program.ExpectOutput("the port is plugged in"));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_FALSE(std::filesystem::is_symlink(link));
}

TEST(KinetrelEmulate, RefusesWhatItDoesNotKnow) {
  struct Case {
    std::vector<std::string> arguments;
    const char* complaint;
  };
  for (const Case& row : std::vector<Case>{{{"sextant"}, "there is no device 'sextant'"},
                                           {{"fastrak", "--bogus"}, "unknown argument '--bogus'"},
                                           {{"fastrak", "--model", "x"}, "--model wants one of"},
                                           {{"fastrak", "--seed"}, "--seed wants a value"},
                                           {{"fastrak", "--baud", "0"}, "--baud wants a number"},
                                           {{"fastrak", "--fault", "x@5s"}, "--fault wants"},
                                           {{"fastrak", "--motion", "x"}, "the motions are"},
                                           {{"fastrak", "--show=1"}, "takes no value"},
                                           {{"fastrak", "--receivers", "5"}, "from 0 to 4"}}) {
    ChildProcess program("kinetrel-emulate", row.arguments, {.emptyInput = true});
    EXPECT_TRUE(program.ExpectError(row.complaint)) << program.error();
    EXPECT_EQ(program.Wait(), 2) << row.complaint;
  }
}

TEST(KinetrelEmulate, HelpTellsDevicesAndTheirOptions) {
  ChildProcess all("kinetrel-emulate", {"--help"});
  EXPECT_TRUE(all.ExpectOutput("fastrak"));
  EXPECT_EQ(all.Wait(), 0);
  ChildProcess one("kinetrel-emulate", {"fastrak", "--help"});
  EXPECT_TRUE(one.ExpectOutput("--sticky-errors"));
  EXPECT_EQ(one.Wait(), 0);
}

}  // namespace
}  // namespace kinetrel::test

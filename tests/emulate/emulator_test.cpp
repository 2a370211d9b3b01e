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
using namespace emulate;
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
  explicit Host(const std::string& port) : line_(Opened(port)) {
    LineSettings settings = *line_.Settings();
    settings.baud = 115200;
    EXPECT_TRUE(line_.Apply(settings).Ok());
    EXPECT_TRUE(line_.SetReadTimeouts({0, 0, 50}).Ok());  // reads wait, with a limit
  }

  bool ReadOnce(std::string& into) {
    std::byte bytes[256];
    const auto got = line_.Read(bytes);
    if (!got.Ok()) return false;
    into.append(reinterpret_cast<const char*>(bytes), *got);
    return true;
  }

  std::string Ask(std::string_view question, std::size_t count) {
    EXPECT_TRUE(line_.Write(std::as_bytes(std::span(question.data(), question.size()))).Ok());
    std::string text;
    WaitUntil([&] { return text.size() >= count || !ReadOnce(text); });
    return text;
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

TEST(Emulator, UnpluggedPortComesBackUnderItsLink) {
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

TEST(KinetrelEmulate, PrintsItsPortShowsCommandsAndEndsCleanly) {
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

TEST(KinetrelEmulate, RefusesUnknownArguments) {
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

}  // namespace
}  // namespace kinetrel::test

// Emulated devices on real pseudo-terminals, opened as a host opens a serial line.
#include "emulate/emulator.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "emulate/fastrak_emulator.h"
#include "tests/emulate/emulated_line.h"

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
  ASSERT_TRUE(program.ExpectOutput("kinetrel --device fastrak --port " + link + "\n"));
  // The hint works as it is, from any folder.
  const std::string& hint = program.output();
  const std::size_t start = hint.find("\n  ") + 3;
  const std::string started = hint.substr(start, hint.find(" --device") - start);
  EXPECT_TRUE(std::filesystem::path(started).is_absolute() && std::filesystem::exists(started))
      << hint;
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

TEST(KinetrelEmulate, HasTheSamePortNameAtEachStart) {
  const std::string folder = LinkName("names");
  std::filesystem::create_directory(folder);
  const std::string name = folder + "/kinetrel-gps";
  const auto start = [&](const std::string& expected) {
    auto program = std::make_unique<ChildProcess>(
        "kinetrel-emulate", std::vector<std::string>{"gps"},
        ChildProcess::Options{.environment = {{"XDG_RUNTIME_DIR", folder}}, .emptyInput = true});
    EXPECT_TRUE(program->ExpectOutput(" --port " + expected + "\n")) << program->output();
    return program;
  };
  auto first = start(name);
  const auto second = start(name + "-2");
  first->Signal(SIGKILL);  // its link stays behind
  first->Wait();
  first = start(name);
  first->Signal(SIGTERM);
  EXPECT_EQ(first->Wait(), 0);
  EXPECT_FALSE(std::filesystem::is_symlink(name));
  second->Signal(SIGTERM);
  second->Wait();
  std::filesystem::remove_all(folder);
}

TEST(KinetrelEmulate, RefusesUnknownArguments) {
  struct Case {
    std::vector<std::string> arguments;
    const char* complaint;
  };
  for (const Case& row :
       std::vector<Case>{{{"sextant"}, "there is no device 'sextant'"},
                         {{"fastrak", "--bogus"}, "unknown argument '--bogus'"},
                         {{"fastrak", "--model", "x"}, "--model: wants one of"},
                         {{"fastrak", "--seed"}, "--seed: 1 required NUMBER missing"},
                         {{"fastrak", "--baud", "0"}, "--baud: wants a number"},
                         {{"fastrak", "--fault", "x@5s"}, "--fault: wants"},
                         {{"fastrak", "--motion", "x"}, "the motions are"},
                         {{"fastrak", "--show=0"}, "show was given"},
                         {{"fastrak", "--receivers", "5"}, "from 0 to 4"}}) {
    ChildProcess program("kinetrel-emulate", row.arguments, {.emptyInput = true});
    EXPECT_TRUE(program.ExpectError(row.complaint)) << program.error();
    EXPECT_EQ(program.Wait(), 2) << row.complaint;
  }
}

}  // namespace
}  // namespace kinetrel::test

// kinetrel-certify with real processes: emulators whose noise and losses are known, trackers that
// never come or end meanwhile, and files that cannot be written.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/emulated_run.h"

namespace kinetrel::test {
namespace {

namespace fs = std::filesystem;

class Certify : public testing::Test {
 protected:
  Certify() { fs::create_directories(folder_); }
  ~Certify() override { fs::remove_all(folder_); }

  std::string Path(const std::string& name) const { return (folder_ / name).string(); }

  Arguments Options(int slot, Arguments more) const {
    more.insert(more.end(), {"--slot", std::to_string(slot), "--html", Path("a.html"), "--json",
                             Path("a.json")});
    return more;
  }

  std::string Text(const std::string& name) const {
    std::ifstream file(Path(name));
    return {std::istreambuf_iterator<char>(file), {}};
  }
  nlohmann::json Figures() const { return nlohmann::json::parse(Text("a.json"), nullptr, false); }

  const fs::path folder_ =
      fs::path(testing::TempDir()) / ("kinetrel-certify-" + std::to_string(::getpid()));
};

// 0.3 mm and 0.2 degrees, and each 50th frame is missing. Twelve seconds have few poses, so the
// noise is the root mean square of the axes, and of a seed whose own noise is within 1.1 % of that
// in any twelve of its first fifty seconds.
TEST_F(Certify, FindsTheNoiseAndLossesOfAnEmulator) {
  EmulatedRun run("liberty", 10,
                  {"--motion", "hold:30,10,5,0,0,0", "--pose-noise", "0.03,0.2", "--seed", "64",
                   "--fault", "cut:0@/#50"},
                  {}, {{"KINETREL_PDI", KINETREL_PDI_SUBSTITUTE}, {"KINETREL_PDI_SERIAL", "1"}});
  ASSERT_FALSE(run.Watch(10).empty());
  ChildProcess certify("kinetrel-certify", Options(run.slot(), {"--minutes", "0.2"}));
  ASSERT_EQ(certify.Wait(std::chrono::seconds(60)), 0) << certify.error();
  const auto figures = Figures();
  const auto noise = [&](const char* what) {
    const auto& axes = figures.at("sensors").at(0).at(what);
    EXPECT_EQ(axes.at("held"), "still");
    double squares = 0;
    for (const char* const axis : {"x", "y", "z"}) {
      squares += std::pow(axes.at(axis).at("deviation").get<double>(), 2) / 3;
    }
    return std::sqrt(squares);
  };
  EXPECT_NEAR(noise("positionMm"), 0.3, 0.02 * 0.3);
  EXPECT_NEAR(noise("turnDegrees"), 0.2, 0.02 * 0.2);
  const double missing = figures.at("gaps").at("missingFrames");
  const double frames = figures.at("rate").at("frames");
  EXPECT_NEAR(missing, (frames + missing) / 50, 1.01) << figures.dump(2);
}

// A clock that is fast by half a per cent, and a port that goes and comes back.
TEST_F(Certify, FindsTheDriftAndTheRecoveryOfAnEmulator) {
  EmulatedRun run("fastrak", 2, {"--clock-ppm", "5000", "--fault=unplug:1@usr1"});
  ASSERT_FALSE(run.Watch(10).empty());
  ChildProcess certify("kinetrel-certify", Options(run.slot(), {}));
  ASSERT_TRUE(certify.ExpectOutput("Ctrl-C"));
  ASSERT_FALSE(run.Watch(600).empty());
  run.emulator().Signal(SIGUSR1);
  ASSERT_TRUE(run.tracker().ExpectError(" is back after "));
  ASSERT_FALSE(run.Watch(600).empty());
  certify.Signal(SIGINT);
  ASSERT_EQ(certify.Wait(), 0) << certify.error();
  const auto figures = Figures();
  EXPECT_EQ(figures.at("loss").at("recoveries"), 1);
  EXPECT_EQ(figures.at("loss").at("programsSeen"), 1);
  EXPECT_EQ(figures.at("gaps").at("interruptions"), 1);
  const auto& clock = figures.at("clock");
  ASSERT_TRUE(clock.is_object()) << figures.dump(2);
  EXPECT_NEAR(clock.at("driftPpm").get<double>(), 5000,
              std::max(100.0, clock.at("uncertaintyPpm").get<double>()));
}

TEST_F(Certify, SaysThatNoTrackerCame) {
  const FreeSlot slot;
  ChildProcess certify("kinetrel-certify", Options(slot.slot(), {"--wait", "0.3"}));
  EXPECT_EQ(certify.Wait(), 1);
  EXPECT_NE(certify.error().find("no tracker publishes"), std::string::npos) << certify.error();
  EXPECT_NE(Text("a.html").find("no tracker publishes"), std::string::npos);
  EXPECT_EQ(Figures().at("rate").at("frames"), 0);
}

TEST_F(Certify, TellsOfATrackerThatEnds) {
  const FreeSlot slot;
  ChildProcess certify("kinetrel-certify", Options(slot.slot(), {"--minutes", "60"}));
  ASSERT_TRUE(certify.ExpectOutput("Ctrl-C"));
  ChildProcess tracker("kinetrel", Simulated(slot));
  SharedTrackReader reader(slot.device());
  ASSERT_FALSE(WatchFrames(reader, 100).empty());
  tracker.Kill();
  ChildProcess next("kinetrel", Simulated(slot));
  ASSERT_FALSE(WatchFrames(reader, 100).empty());
  next.Send("\x1b");
  EXPECT_EQ(next.Wait(), 0);
  certify.Signal(SIGINT);
  EXPECT_EQ(certify.Wait(), 0) << certify.error();
  const auto figures = Figures();
  EXPECT_EQ(figures.at("ending"), "The operator ended it early.");
  EXPECT_EQ(figures.at("loss").at("programsSeen"), 2);
  EXPECT_EQ(figures.at("gaps").at("interruptions"), 1);
  EXPECT_GT(figures.at("rate").at("frames"), 200);
  const std::string page = Text("a.html");
  EXPECT_NE(page.find("started again"), std::string::npos);
  EXPECT_EQ(page.find("<script"), std::string::npos);
  EXPECT_NE(page.find("<svg"), std::string::npos);
}

// Found before the tracker is watched, so that no time is lost.
TEST_F(Certify, RefusesFilesThatCannotBeWritten) {
  const auto refusal = [](ChildProcess& certify) {
    EXPECT_EQ(certify.Wait(), 1);
    EXPECT_EQ(certify.output(), "");
    return certify.error();
  };
  std::ofstream(Path("a.html")) << "kept";
  ChildProcess exists("kinetrel-certify", Options(1, {}));
  EXPECT_NE(refusal(exists).find("--force"), std::string::npos);
  EXPECT_EQ(Text("a.html"), "kept");
  ChildProcess nowhere("kinetrel-certify", {"--out", Path("nowhere")});
  EXPECT_NE(refusal(nowhere).find("folder is missing"), std::string::npos);
  // A limit of the size of files stands for a full disk.
  Arguments words = {"-c", "trap '' XFSZ; ulimit -f 64; exec \"$0\" \"$@\"",
                     KINETREL_BIN_DIR "/kinetrel-certify"};
  for (const std::string& each : Options(1, {"--force"})) words.push_back(each);
  ChildProcess full("/bin/sh", words);
  EXPECT_NE(refusal(full).find("no 256 KB left"), std::string::npos);
  EXPECT_EQ(Text("a.html"), "kept");
}

// The disk had room at first. A limit of the size of files stands for one that filled meanwhile.
TEST_F(Certify, PrintsTheFiguresIfTheDiskFilledMeanwhile) {
  const FreeSlot slot;
  ChildProcess tracker("kinetrel", Simulated(slot));
  Arguments words = {"-c", "trap '' XFSZ; exec \"$0\" \"$@\"",
                     KINETREL_BIN_DIR "/kinetrel-certify"};
  for (const std::string& each : Options(slot.slot(), {})) words.push_back(each);
  ChildProcess certify("/bin/sh", words);
  ASSERT_TRUE(certify.ExpectOutput("Ctrl-C"));
  SharedTrackReader reader(slot.device());
  ASSERT_FALSE(WatchFrames(reader, 50).empty());
  const rlimit full{100, RLIM_INFINITY};
  ASSERT_EQ(::prlimit(certify.pid(), RLIMIT_FSIZE, &full, nullptr), 0);
  certify.Signal(SIGTERM);
  EXPECT_EQ(certify.Wait(), 1);
  EXPECT_NE(certify.error().find("is the disk full?"), std::string::npos) << certify.error();
  const std::string output = certify.output();
  const auto figures = nlohmann::json::parse(
      output.substr(std::min(output.find("{\n"), output.size())), nullptr, false);
  ASSERT_TRUE(figures.is_object()) << output;
  EXPECT_GT(figures.at("rate").at("frames"), 40);
  EXPECT_TRUE(fs::is_empty(folder_));
}

// The first tracker still runs when a second one takes its slot.
TEST_F(Certify, TellsOfATrackerThatLosesItsSlot) {
  const FreeSlot slot;
  ChildProcess first("kinetrel", Simulated(slot));
  SharedTrackReader reader(slot.device());
  ASSERT_FALSE(WatchFrames(reader, 20).empty());
  ChildProcess certify("kinetrel-certify", Options(slot.slot(), {}));
  ASSERT_TRUE(certify.ExpectOutput("Ctrl-C"));
  ASSERT_FALSE(WatchFrames(reader, 50).empty());
  ChildProcess second("kinetrel", Simulated(slot, {"-s3"}));
  ASSERT_TRUE(second.ExpectError("Running"));
  ASSERT_FALSE(WatchFrames(reader, 200).empty());
  certify.Signal(SIGINT);
  EXPECT_EQ(certify.Wait(), 0) << certify.error();
  const auto figures = Figures();
  EXPECT_EQ(figures.at("loss").at("programsSeen"), 2);
  EXPECT_EQ(figures.at("configuration").at("sensors").size(), 2U);
  EXPECT_EQ(figures.at("gaps").at("interruptions"), 1);
}

}  // namespace
}  // namespace kinetrel::test

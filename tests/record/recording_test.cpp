// Recordings of a real run: what is in them, what is made of them, and what is left of a damaged
// one.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/datagram_socket.h"
#include "recording/recorded_frames.h"
#include "tests/support/child_process.h"
#include "tests/support/emulated_run.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {
namespace {

namespace fs = std::filesystem;

class Recording : public testing::Test {
 protected:
  Recording() { fs::create_directories(folder_); }
  ~Recording() override { fs::remove_all(folder_); }

  std::string Path(const std::string& name) const { return (folder_ / name).string(); }

  static std::string SlotOption(const FreeSlot& slot) {
    return "--slot=" + std::to_string(slot.slot());
  }

  // Records three sensors of the simulated tracker.
  void Record(const std::string& name, double seconds) {
    ChildProcess tracker("kinetrel", Simulated(slot_, {"-s7"}));
    ChildProcess recorder("kinetrel-record",
                          {Path(name), SlotOption(slot_), "--seconds", std::to_string(seconds)});
    EXPECT_EQ(recorder.Wait(), 0) << recorder.error();
    tracker.Send("\x1b");
    tracker.Wait();
  }

  std::vector<record::RecordedFrame> Frames(const std::string& name) const {
    record::RecordedFrames reader;
    EXPECT_EQ(reader.Open(Path(name), 0), "");
    std::vector<record::RecordedFrame> frames;
    for (record::RecordedFrame frame; reader.Next(frame);) frames.push_back(frame);
    return frames;
  }

  std::string Convert(const std::string& name, const std::string& option) const {
    ChildProcess convert("kinetrel-record", {Path(name), option, "--force"});
    EXPECT_EQ(convert.Wait(), 0) << convert.error();
    return convert.error();
  }

  std::vector<std::string> Lines(const std::string& name) const {
    std::ifstream file(Path(name));
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }

  const FreeSlot slot_;
  const fs::path folder_ =
      fs::path(testing::TempDir()) / ("kinetrel-record-" + std::to_string(slot_.slot()));
};

// The simulated tracker's sensor 1 runs around a circle of 0.8 m.
TEST_F(Recording, HoldsEveryFrameOfTheRun) {
  Record("a.mcap", 1.0);
  const auto frames = Frames("a.mcap");
  ASSERT_GT(frames.size(), 20U);
  for (std::size_t i = 0; i < frames.size(); ++i) {
    ASSERT_EQ(frames[i].poses.size(), 3U);
    const auto& position = frames[i].poses[0].position;
    ASSERT_NEAR(std::hypot(position[0], position[1]), 0.8, 1e-4);
    if (i == 0) continue;
    ASSERT_EQ(frames[i].number, frames[i - 1].number + 1);
    ASSERT_GT(frames[i].utcNs, frames[i - 1].utcNs);
  }

  Convert("a.mcap", "--to-csv");
  Convert("a.mcap", "--to-trc");
  Convert("a.mcap", "--to-tsv");
  const auto csv = Lines("a.csv");
  EXPECT_EQ(csv.size(), 1 + 3 * frames.size());
  const auto trc = Lines("a.trc");
  EXPECT_EQ(trc.size(), 6 + frames.size());
  const auto motion = Lines("a_motion.tsv");
  EXPECT_EQ(motion.size(), frames.size());
  // The same x of the first pose in metres, millimetres and metres.
  const auto field = [](const std::string& line, char between, int number) {
    std::istringstream fields(line);
    std::string text;
    for (int i = 0; i <= number; ++i) std::getline(fields, text, between);
    return std::stod(text);
  };
  const double x = frames[0].poses[0].position[0];
  EXPECT_NEAR(field(csv[1], ',', 4), x, 1e-6);
  EXPECT_NEAR(field(trc[6], '\t', 2), 1000 * x, 1e-3);
  EXPECT_NEAR(field(motion[0], '\t', 1), x, 1e-6);
}

// Neither a second run nor a table may take the place of a file by mistake.
TEST_F(Recording, IsNotReplacedByMistake) {
  Record("a.mcap", 0.2);
  fs::create_directory(Path("b_motion.tsv"));
  const auto size = fs::file_size(Path("a.mcap"));
  struct Row {
    std::vector<std::string> arguments;
    const char* text;
  };
  const std::string source = Path("a.mcap");
  for (const Row& row : {
           Row{{source}, "exists; --force replaces it"},
           Row{{source, "--to-csv", "--output", Path("./a.mcap"), "--force"},
               "the recording itself"},
           Row{{source, "--to-csv", "--output", Path("no/a.csv")}, "folder is missing"},
           Row{{source, "--to-csv", "--output", "/dev/full"}, "is the disk full?"},
           Row{{source, "--to-tsv", "--output", Path("b")}, "b_motion.tsv cannot be written"},
           Row{{source, "--play", "--from-slot", std::to_string(slot_.slot() % 16 + 1)},
               "holds no poses of slot"},
       }) {
    ChildProcess program("kinetrel-record", row.arguments);
    EXPECT_EQ(program.Wait(), 1);
    EXPECT_NE(program.error().find(row.text), std::string::npos) << program.error();
  }
  EXPECT_EQ(fs::file_size(source), size);
  for (const auto& each : fs::directory_iterator(folder_)) {
    EXPECT_NE(each.path().extension(), ".part") << each.path();
  }
  Convert("a.mcap", "--to-csv");
  ChildProcess again("kinetrel-record", {source, "--to-csv"});
  EXPECT_EQ(again.Wait(), 1);
  EXPECT_NE(again.error().find("--force"), std::string::npos) << again.error();
}

// Without these lines the user would wait for a tracker that is not there.
TEST_F(Recording, TellsWhetherATrackerIsThere) {
  ChildProcess recorder("kinetrel-record", {Path("a.mcap"), SlotOption(slot_)});
  ASSERT_TRUE(recorder.ExpectOutput("no tracker publishes")) << recorder.output();
  ChildProcess tracker("kinetrel", Simulated(slot_));
  ASSERT_TRUE(recorder.ExpectOutput("running")) << recorder.output();
  ChildProcess second("kinetrel-record", {Path("b.mcap"), SlotOption(slot_), "--seconds", "0.3"});
  EXPECT_EQ(second.Wait(), 0) << second.error();
  ChildProcess intruder("kinetrel-record", {Path("b.mcap"), "--play", SlotOption(slot_)});
  EXPECT_EQ(intruder.Wait(), 1);
  EXPECT_NE(intruder.error().find("is taken by"), std::string::npos) << intruder.error();
  tracker.Kill();
  ASSERT_TRUE(recorder.ExpectOutput("lost")) << recorder.output();
  ChildProcess next("kinetrel", Simulated(slot_));
  SharedTrackReader reader(slot_.device());
  ASSERT_FALSE(WatchFrames(reader, 30).empty());
  recorder.Signal(SIGINT);
  EXPECT_EQ(recorder.Wait(), 0) << recorder.error();
  const auto frames = Frames("a.mcap");
  ASSERT_FALSE(frames.empty());
  EXPECT_GT(frames.back().utcNs - frames.front().utcNs, 2'000'000'000U);  // of both trackers

  const FreeSlot other;
  ChildProcess vain("kinetrel-record", {Path("c.mcap"), SlotOption(other)});
  ASSERT_TRUE(vain.ExpectOutput("no tracker publishes")) << vain.output();
  vain.Signal(SIGINT);
  EXPECT_EQ(vain.Wait(), 1);
  EXPECT_NE(vain.error().find("no pose came"), std::string::npos) << vain.error();
}

// Read by a program that we did not write.
TEST_F(Recording, IsReadByTheFormatsOwnLibrary) {
  Record("a.mcap", 0.5);
  const auto frames = Frames("a.mcap");
  const auto read = [this](const std::string& name) {
    ChildProcess reader(
        "/usr/bin/env",
        {"node", std::string(KINETREL_SOURCE_DIR) + "/tests/npm/mcap_read.js", Path(name)});
    EXPECT_EQ(reader.Wait(), 0) << reader.error();
    return reader.output();
  };
  std::istringstream words(read("a.mcap"));
  std::string how, topic;
  words >> how;
  EXPECT_EQ(how, "indexed");
  std::size_t poses = 0;
  for (std::string word; words >> word;) {
    if (word != "/kinetrel/" + std::to_string(slot_.slot()) + "/sensor/2/pose") continue;
    double x = 0;
    words >> poses >> x;
    EXPECT_EQ(x, frames.back().poses[1].position[0]);
  }
  EXPECT_EQ(poses, frames.size());
  fs::resize_file(Path("a.mcap"), fs::file_size(Path("a.mcap")) - 5);
  EXPECT_EQ(read("a.mcap").rfind("streamed\n", 0), 0U);
}

TEST_F(Recording, IsPlayedAsItWasRecorded) {
  Record("a.mcap", 1.0);
  const FreeSlot other;
  ChildProcess recorder("kinetrel-record", {Path("b.mcap"), SlotOption(other)});
  ASSERT_TRUE(recorder.ExpectOutput("recording"));
  ChildProcess player("kinetrel-record", {Path("a.mcap"), "--play", SlotOption(other)});
  EXPECT_EQ(player.Wait(), 0) << player.error();
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0) << recorder.error();
  const auto first = Frames("a.mcap");
  const auto second = Frames("b.mcap");
  ASSERT_EQ(first.size(), second.size());
  for (std::size_t i = 0; i < first.size(); ++i) {
    ASSERT_EQ(first[i].poses.size(), second[i].poses.size());
    for (std::size_t j = 0; j < first[i].poses.size(); ++j) {
      const auto& [sensor, time, position, orientation, buttons] = first[i].poses[j];
      ASSERT_EQ(second[i].poses[j].sensor, sensor);
      for (std::size_t k = 0; k < 3; ++k) {
        ASSERT_NEAR(second[i].poses[j].position[k], position[k], 1e-5);
      }
      for (std::size_t k = 0; k < 4; ++k) {
        ASSERT_NEAR(second[i].poses[j].orientation[k], orientation[k], 1e-6);
      }
    }
  }
}

TEST_F(Recording, TakesMarkersFromTheKeyboardAndTheNetwork) {
  ChildProcess tracker("kinetrel", Simulated(slot_));
  auto free = DatagramSocket::Open(0);
  const std::uint16_t port = free->port();
  { DatagramSocket closed = std::move(*free); }
  ChildProcess recorder("kinetrel-record", {Path("a.mcap"), SlotOption(slot_), "--until", "q",
                                            "--marker-port", std::to_string(port)});
  ASSERT_TRUE(WaitUntil(
      [&] { return fs::exists(Path("a.mcap")) && fs::file_size(Path("a.mcap")) > 2000; }));
  auto sender = DatagramSocket::Open(0);
  const std::string text = "from \"afar\"\nand more";
  ASSERT_TRUE(sender->Send("127.0.0.1", port, std::as_bytes(std::span(text))).Ok());
  tracker.Send("\x1b");
  ASSERT_TRUE(recorder.ExpectOutput("stopped")) << recorder.output();
  recorder.Send("a question\nq");
  EXPECT_EQ(recorder.Wait(), 0) << recorder.error();

  record::RecordedFrames frames;
  ASSERT_EQ(frames.Open(Path("a.mcap"), 0), "");
  std::vector<record::RecordedMarker> markers;
  std::uint64_t lastPose = 0;
  for (record::RecordedFrame frame; frames.Next(frame); lastPose = frame.utcNs) {
    markers.insert(markers.end(), frame.markers.begin(), frame.markers.end());
  }
  ASSERT_EQ(markers.size(), 1U);
  EXPECT_EQ(markers[0].text, "from \"afar\"");
  ASSERT_EQ(frames.lateMarkers().size(), 1U);
  EXPECT_EQ(frames.lateMarkers()[0].text, "a question");
  EXPECT_GT(frames.lateMarkers()[0].utcNs, lastPose);
  Convert("a.mcap", "--to-csv");
  EXPECT_NE(Lines("a.csv").back().find(",,,,,,,,,,,,\"a question\""), std::string::npos);
  Convert("a.mcap", "--to-tsv");
  EXPECT_EQ(Lines("a_events.tsv").size(), 3U);
}

// Runs a simulated tracker that captures itself. Ignores the signal of a file at its limit.
std::vector<std::string> CapturedRun(const FreeSlot& slot, const std::string& path) {
  std::vector<std::string> words = {"-c", "trap '' XFSZ; exec \"$0\" \"$@\"",
                                    KINETREL_BIN_DIR "/kinetrel"};
  for (const std::string& each : Simulated(slot, {"-s7", "--capture", path})) words.push_back(each);
  return words;
}

// A limit of the size of files stands for a full disk.
TEST_F(Recording, OfACaptureEndsAtAFullDiskAndTheRunGoesOn) {
  ChildProcess tracker("/bin/sh", CapturedRun(slot_, Path("a.mcap")));
  SharedTrackReader reader(slot_.device());
  ASSERT_FALSE(WatchFrames(reader, 300).empty());
  const rlimit full{fs::file_size(Path("a.mcap")), RLIM_INFINITY};
  ASSERT_EQ(::prlimit(tracker.pid(), RLIMIT_FSIZE, &full, nullptr), 0);
  ASSERT_TRUE(tracker.ExpectError("Sampling goes on.")) << tracker.error();
  EXPECT_FALSE(WatchFrames(reader, 100).empty());
  EXPECT_FALSE(Frames("a.mcap").empty());
  tracker.Send("\x1b");
  EXPECT_EQ(tracker.Wait(), 0) << tracker.error();
  EXPECT_EQ(tracker.error().find("Captured"), std::string::npos);
}

TEST_F(Recording, OfACaptureIsReadUpToTheLastSecondOfAKilledProgram) {
  ChildProcess tracker("/bin/sh", CapturedRun(slot_, Path("a.mcap")));
  SharedTrackReader reader(slot_.device());
  const auto seen = WatchFrames(reader, 1000);
  ASSERT_FALSE(seen.empty());
  tracker.Kill();
  const double run = seen.back().sampleTime - seen.front().sampleTime;
  ASSERT_GT(run, 1.5);
  const auto frames = Frames("a.mcap");
  ASSERT_FALSE(frames.empty());
  const auto captured = static_cast<double>(frames.back().utcNs - frames.front().utcNs);
  EXPECT_GT(1e-9 * captured, run - 1);
}

// A recorder that is killed loses a second at most, and a cut file is read up to the cut.
TEST_F(Recording, IsReadUpToWhereItEnds) {
  ChildProcess tracker("kinetrel", Simulated(slot_, {"-s7"}));
  {
    ChildProcess recorder("kinetrel-record", {Path("a.mcap"), SlotOption(slot_)});
    ASSERT_TRUE(WaitUntil(
        [&] { return fs::exists(Path("a.mcap")) && fs::file_size(Path("a.mcap")) > 60000; }));
    recorder.Kill();
  }
  const auto all = Frames("a.mcap");
  ASSERT_GT(all.size(), 60U);
  EXPECT_NE(Convert("a.mcap", "--to-csv").find("was cut"), std::string::npos);
  std::mt19937 random(1);
  std::vector<std::uintmax_t> cuts(200);
  for (auto& cut : cuts)
    cut = std::uniform_int_distribution<std::uintmax_t>(8, fs::file_size(Path("a.mcap")))(random);
  std::ranges::sort(cuts, std::greater());
  std::size_t before = all.size();
  for (const std::uintmax_t cut : cuts) {
    fs::resize_file(Path("a.mcap"), cut);
    record::RecordedFrames reader;
    if (!reader.Open(Path("a.mcap"), 0).empty()) {  // not one pose is left
      EXPECT_LT(cut, 4000U);
      continue;
    }
    std::size_t read = 0;
    for (record::RecordedFrame frame; reader.Next(frame); ++read) {
      ASSERT_EQ(frame.number, all[read].number);
    }
    ASSERT_LE(read, before);
    // Three messages of 31 bytes and 84 bytes each make a frame.
    ASSERT_LE(before - read, 2 + all.size() * 400 * 2 / 1000 + 200) << cut;
    before = read;
  }
  EXPECT_LT(before, 20U);
}

TEST_F(Recording, MistakesAreNamedInALine) {
  struct Row {
    std::vector<std::string> arguments;
    int exitCode;
    const char* text;
  };
  std::ofstream(Path("no.mcap")) << "x,y,z\n";
  for (const Row& row : {
           Row{{}, 2, "file is required"},
           Row{{"a", "--slot", "17"}, 2, "--slot"},
           Row{{"a", "--until", "esc"}, 2, "wants one character"},
           Row{{"a", "--play", "--to-csv"}, 2, "excludes"},
           Row{{"a", "--speed", "2"}, 2, "requires --play"},
           Row{{"a", "--seconds", "inf"}, 2, "wants a number from 0.01"},
           Row{{"a", "--play", "--slot", "1", "--slot", "2"}, 2, "only a recording"},
           Row{{Path("none.mcap"), "--to-csv"}, 1, "it cannot be opened"},
           Row{{Path("no.mcap"), "--play"}, 1, "not an MCAP file"},
           Row{{Path("no/where.mcap")}, 1, "creating the recording"},
           Row{{"/dev/full"}, 1, "No space"},
       }) {
    ChildProcess program("kinetrel-record", row.arguments);
    EXPECT_EQ(program.Wait(), row.exitCode);
    EXPECT_NE(program.error().find(row.text), std::string::npos) << program.error();
    EXPECT_EQ(std::ranges::count(program.error(), '\n'), 1) << program.error();
  }
}

}  // namespace
}  // namespace kinetrel::test

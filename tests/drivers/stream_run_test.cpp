// Whole runs of emulated trackers as a client of the record stream sees them.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <string>
#include <vector>

#include <kinetrel/stream.h>

#include "tests/support/emulated_run.h"

namespace kinetrel::test {
namespace {

struct Tracker {
  const char* name;
  const char* device;
  int type;
  Arguments emulator;
  Arguments program;
  int sensors;
  double apart;  // ms from the first sensor's record to the last one's on the line, at least
};

void PrintTo(const Tracker& row, std::ostream* out) { *out << row.name; }

class StreamRun : public testing::TestWithParam<Tracker> {
 protected:
  StreamRun()
      : run_(GetParam().device, GetParam().type, GetParam().emulator, GetParam().program,
             {{"KINETREL_PDI", KINETREL_PDI_SUBSTITUTE}, {"KINETREL_PDI_SERIAL", "1"}}),
        opened_(kinetrel_stream_open(&stream_, run_.slot(), 20'000)) {}
  ~StreamRun() override { kinetrel_stream_close(&stream_); }

  // A killed tracker may have left its stream in the slot, which the new one replaces.
  bool Next() {
    kinetrel_stream_result result = kinetrel_stream_restarted;
    while (result == kinetrel_stream_restarted) {
      result = kinetrel_stream_next(&stream_, &record_, 20'000);
    }
    return result == kinetrel_stream_ok;
  }

  EmulatedRun run_;
  kinetrel_stream stream_;
  kinetrel_stream_result opened_;
  kinetrel_record record_{};
};

double Median(std::vector<double> figures) {
  if (figures.empty()) return NAN;
  std::nth_element(figures.begin(), figures.begin() + static_cast<long>(figures.size() / 2),
                   figures.end());
  return figures[figures.size() / 2];
}

// Waiting for the frame, a client of the block has the first station's record 26.6 ms late. A
// record comes in one piece here: on a busy machine its bytes would come apart or not, by chance.
TEST_P(StreamRun, EverySensorsRecordIsEquallyYoungAtAClient) {
  constexpr int kFrames = 60;
  ASSERT_EQ(opened_, kinetrel_stream_ok) << run_.tracker().error();
  std::array<std::vector<double>, 16> ages;  // ms
  std::vector<double> apart;                 // ms
  std::int64_t first = 0;                    // ns, publication of the first sensor's record
  std::uint64_t frame = 0;
  std::uint64_t count = 0;
  const auto sensors = static_cast<std::size_t>(GetParam().sensors);
  for (std::size_t i = 0; i < kFrames * sensors; ++i) {
    ASSERT_TRUE(Next()) << run_.tracker().error();
    ASSERT_LT(record_.sensor, sensors);
    ages[record_.sensor].push_back(static_cast<double>(kinetrel_now_ns() - record_.sample_ns) *
                                   1e-6);
    if (record_.sensor == 0) first = record_.publish_ns;
    if (record_.sensor + 1 == sensors && first != 0) {
      apart.push_back(static_cast<double>(record_.publish_ns - first) * 1e-6);
    }
    EXPECT_EQ(record_.number, count == 0 ? record_.number : count + 1);
    EXPECT_TRUE(record_.frame == frame || record_.sensor == 0 || frame == 0);
    count = record_.number;
    frame = record_.frame;
    EXPECT_NE(record_.flags & kinetrel_position_valid, 0U);
    EXPECT_NEAR(std::hypot(std::hypot(record_.orientation[0], record_.orientation[1]),
                           std::hypot(record_.orientation[2], record_.orientation[3])),
                1.0, 1e-5);
  }
  const double youngest = Median(ages[0]);
  for (std::size_t i = 1; i < sensors; ++i) EXPECT_NEAR(Median(ages[i]), youngest, 1.0) << i;
  EXPECT_GE(Median(apart), GetParam().apart);
  EXPECT_EQ(kinetrel_stream_lost(&stream_), 0U);
  kinetrel_run run;
  ASSERT_EQ(kinetrel_stream_run(&stream_, &run), kinetrel_stream_ok);
  EXPECT_EQ(run.state, kinetrel_state_running);
  EXPECT_EQ(run.device_type, GetParam().type);
  const bool onPort = GetParam().type != 10;  // the Liberty's line is its library's
  EXPECT_TRUE(WaitUntil([&] {
    return kinetrel_stream_run(&stream_, &run) == kinetrel_stream_ok &&
           (!onPort || (run.bytes_in > 1000 && run.bytes_out > 0)) && run.frames > 0;
  }));
  EXPECT_EQ(run.sensor_mask, (1U << sensors) - 1);
}

INSTANTIATE_TEST_SUITE_P(
    Of, StreamRun,
    testing::Values(Tracker{"Fastrak", "fastrak", 2, {"--whole"}, {"-s", "0xF"}, 4, 20},
                    Tracker{"Flock", "flock", 3, {}, {}, 1, 0},
                    Tracker{"Liberty", "liberty", 10, {"--stations=4"}, {"-s", "0xF"}, 4, 6}),
    [](const auto& row) { return std::string(row.param.name); });

class FastrakStream : public StreamRun {};

// Pulled out and plugged in again: the client is told what to do, and goes on.
TEST_P(FastrakStream, TellsThatThePortHasGoneAndThatTheTrackerIsBack) {
  ASSERT_EQ(opened_, kinetrel_stream_ok) << run_.tracker().error();
  ASSERT_TRUE(Next());
  run_.emulator().Signal(SIGUSR1);
  const auto state = [this] { return kinetrel_stream_state(&stream_, nullptr); };
  EXPECT_TRUE(WaitUntil([&] { return state() == kinetrel_state_recovering; }));
  char text[256];
  kinetrel_stream_state(&stream_, text);
  EXPECT_NE(std::string(text).find("Plug it in again"), std::string::npos) << text;
  EXPECT_TRUE(WaitUntil([&] { return state() == kinetrel_state_running; }));
  EXPECT_EQ(run_.Stop(), 0);
  EXPECT_EQ(state(), kinetrel_state_stopped);
  std::array<kinetrel_log_line, 64> lines;
  const int count = kinetrel_stream_log(&stream_, lines.data(), 64);
  EXPECT_TRUE(std::any_of(lines.begin(), lines.begin() + count, [](const kinetrel_log_line& line) {
    return std::string(line.text).find("is back after") != std::string::npos;
  }));
  kinetrel_stream empty;
  EXPECT_EQ(kinetrel_stream_open(&empty, run_.slot(), 0), kinetrel_stream_none);
}

const Tracker kUnplugged{"Unplugged", "fastrak", 2, {"--fault=unplug:1@usr1"}, {}, 1, 0};
INSTANTIATE_TEST_SUITE_P(Of, FastrakStream, testing::Values(kUnplugged),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- Without room --------------------------------------------------------------------------

// Shared memory of its own that has room for the blocks alone.
TEST(StreamWithoutRoom, SamplingGoesOnWithTheBlocksAndSaysSo) {
  ChildProcess mounts("/usr/bin/unshare", {"-m", "mount", "-t", "tmpfs", "kinetrel", "/dev/shm"});
  if (mounts.Wait() != 0) GTEST_SKIP() << "needs a mount of its own";
  const std::string run = "mount -t tmpfs -o size=600k kinetrel /dev/shm && exec '" +
                          std::string(KINETREL_BIN_DIR) + "/kinetrel' -d8 -z- -w3";
  ChildProcess program("/usr/bin/unshare", {"-m", "sh", "-c", run}, {.emptyInput = true});
  ASSERT_TRUE(program.ExpectError("Running")) << program.error();
  EXPECT_NE(program.error().find("Record stream 3 failed to open; clients of the blocks go on."),
            std::string::npos)
      << program.error();
  program.Signal(SIGINT);
  EXPECT_EQ(program.Wait(), 0);
}

}  // namespace
}  // namespace kinetrel::test

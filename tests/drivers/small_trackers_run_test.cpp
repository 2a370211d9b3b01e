// The trackers of one sensor and the GPS receiver, whole: the poses that a client sees are those of
// the emulated device, at the precision of its records, with none lost and none doubled.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <set>

#include "emulators/motion.h"
#include "tests/support/emulated_run.h"

namespace kinetrel::test {
namespace {

constexpr double kDegrees = 180 / std::numbers::pi;

// Which frame of the ramp a pose is, and how far it is from it. Only differences of frames count.
struct Found {
  long frame;
  double error;  // in steps of the record's own precision; 1 is as good as it can be
};

double AngleError(double radians, double degrees) {
  return std::fabs(std::remainder(radians * kDegrees - degrees, 360));
}

// 0.00254 cm and 0.025 degrees, rounded.
Found FindLogitech(const std::array<float, 6>& pose) {
  const std::uint64_t frame = RampFrame(pose[0], pose[2]);
  const MotionPose ramp = MakeRamp()->At(0, frame, 0);
  const double apart = std::max(
      {std::fabs(pose[0] - ramp.x), std::fabs(pose[1] - ramp.y), std::fabs(pose[2] - ramp.z)});
  return {static_cast<long>(frame),
          std::max(apart / (0.00254 / 2 + 1e-5), AngleError(pose[3], ramp.azimuth) / 0.0126)};
}

// 180 degrees in 32767. A turn of the ramp has 360 frames.
Found FindIntertrax(const std::array<float, 6>& pose) {
  const long frame = std::lround(pose[3] * kDegrees) + 180;
  const MotionPose ramp = MakeRamp()->At(0, static_cast<std::uint64_t>(frame), 0);
  const double apart =
      std::max({AngleError(pose[3], ramp.azimuth), AngleError(pose[4], ramp.elevation),
                AngleError(pose[5], ramp.roll)});
  return {frame, apart / (180.0 / 32767)};
}

// Single-precision radians: 1.9e-9 near the place that is emulated, 1.2 cm on the ground, and that
// twice: the first fix is the origin.
Found FindGps(const std::array<float, 6>& pose) {
  const long frame = std::lround(static_cast<double>(pose[0]) / 0.05);
  const double apart = std::fabs(static_cast<double>(pose[0]) - 0.05 * static_cast<double>(frame));
  return {frame, apart / 0.0125};
}

// A sanitizer's program may be so slow that two reports of a device are one frame to it.
constexpr bool SlowedDown() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#else
  return false;
#endif
}

struct Tracker {
  const char* name;
  const char* device;
  int type;
  std::vector<std::string> options;  // of the emulator
  Found (*find)(const std::array<float, 6>& pose);
  long turn;              // frames after which poses come again; 0: never
  int frames;             // to be published
  bool unmarked = false;  // its records have no mark: noise just before one shifts it
};

class SmallTrackers : public testing::TestWithParam<Tracker> {
 protected:
  EmulatedRun Start(std::vector<std::string> options = {}) const {
    const Tracker& row = GetParam();
    options.insert(options.begin(), row.options.begin(), row.options.end());
    options.push_back("--motion=ramp");
    return {row.device, row.type, options};
  }
};

TEST_P(SmallTrackers, LoseNothingAndDoubleNothing) {
  const Tracker& row = GetParam();
  EmulatedRun run = Start();
  const auto blocks = run.Watch(row.frames);
  ASSERT_FALSE(blocks.empty()) << run.tracker().error();
  EXPECT_GE(blocks.back().frameCount - blocks.front().frameCount, row.frames);
  // A pose's frame less the frame that was published: one number for the whole run.
  std::set<long> shifts;
  double worst = 0;
  for (const SharedTrackBlock& block : blocks) {
    const Found found = row.find(block.poses[0]);
    const long shift = found.frame - block.frameCount;
    shifts.insert(row.turn > 0 ? (shift % row.turn + row.turn) % row.turn : shift);
    worst = std::max(worst, found.error);
  }
  // On a machine that is far too busy an answer may come too late: then the console says so.
  const std::string& console = run.tracker().output();
  std::size_t announced = 0;
  for (std::size_t at = console.find("e\b"); at != std::string::npos; ++announced) {
    at = console.find("e\b", at + 1);
  }
  EXPECT_LE(announced, static_cast<std::size_t>(row.frames / 100));
  const std::size_t merged = SlowedDown() ? static_cast<std::size_t>(row.frames / 10) : 0;
  EXPECT_LE(shifts.size(), 1 + announced + merged);
  EXPECT_LE(worst, 1.0);
}

// Noise between the records and records that break off: those are lost and nothing else is; no
// record is made up of the wrong bytes.
TEST_P(SmallTrackers, ComeThroughADisturbedLine) {
  const Tracker& row = GetParam();
  EmulatedRun run = Start({"--fault=noise:3@/0.4s", "--fault=cut@/#25"});
  const auto blocks = run.Watch(row.frames / 4);
  ASSERT_FALSE(blocks.empty()) << run.tracker().error();
  EXPECT_GE(blocks.back().frameCount - blocks.front().frameCount, row.frames / 4);
  const auto wrong = std::count_if(blocks.begin(), blocks.end(), [&row](const auto& block) {
    return row.find(block.poses[0]).error > 1;
  });
  EXPECT_LE(wrong, row.unmarked ? std::ssize(blocks) / 20 : 0);
}

// The unplugged port comes back after a second, under another name behind the same link.
TEST_P(SmallTrackers, ComeBackAfterAnUnplug) {
  EmulatedRun run = Start({"--fault=unplug:1@usr1"});
  ASSERT_FALSE(run.Watch(1).empty()) << run.tracker().error();
  run.emulator().Signal(SIGUSR1);
  EXPECT_TRUE(run.tracker().ExpectError("has gone; waiting for it ... "));
  EXPECT_TRUE(run.tracker().ExpectError(" is back after "));
  const auto blocks = run.Watch(20);
  ASSERT_FALSE(blocks.empty()) << run.tracker().error();
  EXPECT_GE(blocks.back().frameCount - blocks.front().frameCount, 20);
}

// The receiver's line carries no more than some fifteen positions a second, so it runs for fewer
// frames.
INSTANTIATE_TEST_SUITE_P(
    Emulated, SmallTrackers,
    testing::Values(Tracker{"Logitech", "logitech", 4, {}, FindLogitech, 0, 1000},
                    Tracker{"Intertrax", "intertrax", 9, {}, FindIntertrax, 360, 1000, true},
                    Tracker{"Gps", "gps", 12, {"--rate=15"}, FindGps, 0, 300}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace kinetrel::test

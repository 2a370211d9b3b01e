// The trackers of one sensor and the GPS receiver, whole: the poses that a client sees are those of
// the emulated device, at the precision of its records, with none lost and none doubled.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <numbers>

#include "emulators/motion.h"
#include "tests/end_to_end/whole_run.h"

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
  std::vector<std::string> device;
  std::vector<std::string> options;
  Found (*find)(const std::array<float, 6>& pose);
  long turn;              // frames after which poses come again; 0: never
  int frames;             // to be published
  bool unmarked = false;  // its records have no mark: noise just before one shifts it
};

void PrintTo(const Tracker& tracker, std::ostream* out) { *out << tracker.name; }

class SmallTrackers : public testing::TestWithParam<Tracker> {};

TEST_P(SmallTrackers, LoseNothingAndDoubleNothing) {
  const Tracker& row = GetParam();
  WholeRun run(row.device, row.options);
  // A pose's frame less the frame that was published: one number for the whole run.
  std::map<long, int> shifts;
  double worst = 0;
  int first = -1;
  const bool whole = run.Watch([&](const SharedTrackBlock& block) {
    if (first < 0) first = block.frameCount;
    const Found found = row.find(block.poses[0]);
    const long shift = found.frame - block.frameCount;
    ++shifts[row.turn > 0 ? (shift % row.turn + row.turn) % row.turn : shift];
    worst = std::max(worst, found.error);
    return block.frameCount - first >= row.frames;
  });
  EXPECT_TRUE(whole) << run.kinetrel().error();
  // On a machine that is far too busy an answer may come too late: then the console says so.
  const std::string& console = run.kinetrel().output();
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
  std::vector<std::string> device = row.device;
  device.insert(device.end(), {"--fault=noise:3@/0.4s", "--fault=cut@/#25"});
  WholeRun run(device, row.options);
  int good = 0;
  int wrong = 0;
  const bool whole = run.Watch([&](const SharedTrackBlock& block) {
    ++(row.find(block.poses[0]).error <= 1 ? good : wrong);
    return good >= row.frames / 5;
  });
  EXPECT_TRUE(whole) << run.kinetrel().error();
  EXPECT_LE(wrong, row.unmarked ? good / 20 : 0);
}

// The unplugged port comes back after a second, under another name behind the same link.
TEST_P(SmallTrackers, ComeBackAfterAnUnplug) {
  const Tracker& row = GetParam();
  std::vector<std::string> device = row.device;
  device.insert(device.end(), {"--fault", "unplug:1@usr1"});
  WholeRun run(device, row.options);
  int after = 0;
  bool unplugged = false;
  const bool whole = run.Watch([&](const SharedTrackBlock&) {
    if (!unplugged) {
      run.emulator().Signal(SIGUSR1);
      unplugged = run.kinetrel().ExpectError("has gone; waiting for it ... ");
      return !unplugged;
    }
    return ++after > 20;
  });
  EXPECT_TRUE(whole && unplugged) << run.kinetrel().error();
  EXPECT_TRUE(run.kinetrel().ExpectError(" is back after "));
}

// The receiver's line carries no more than some fifteen positions a second, so it runs for fewer
// frames.
INSTANTIATE_TEST_SUITE_P(
    Emulated, SmallTrackers,
    testing::Values(
        Tracker{"Logitech", {"logitech", "--motion=ramp"}, {"-d", "4"}, FindLogitech, 0, 1000},
        Tracker{"Intertrax",
                {"intertrax", "--motion=ramp"},
                {"-d", "9"},
                FindIntertrax,
                360,
                1000,
                true},
        Tracker{"Gps", {"gps", "--motion=ramp", "--rate=15"}, {"-d", "12"}, FindGps, 0, 300}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace kinetrel::test

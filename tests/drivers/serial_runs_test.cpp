// Serial trackers and the GPS receiver, whole: the emulated device, the program and a client. The
// poses that it sees are the device's, at the precision of its records, with none lost and none
// doubled.
#include <gtest/gtest.h>
#include <kinetrel/stream.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numbers>
#include <set>

#include "emulate/motion.h"
#include "tests/support/emulated_run.h"

namespace kinetrel::test {
using namespace emulate;
namespace {

constexpr double kDegrees = 180 / std::numbers::pi;
constexpr int kGpsType = 12;
constexpr long kTurn = 360;  // frames of the ramp in which its azimuth comes round

// Which frame of the ramp a pose is, and how far it is from it. Only differences of frames count.
struct Found {
  long frame;
  double error;  // in steps of the record's own precision; 1 is as good as it can be
};

double AngleError(double radians, double degrees) {
  return std::fabs(std::remainder(radians * kDegrees - degrees, 360));
}

// 0.00254 cm and 0.025 degrees, rounded.
Found FindLogitech(const std::array<float, 6>& pose, unsigned) {
  const std::uint64_t frame = RampFrame(pose[0], pose[2]);
  const MotionPose ramp = MakeRamp()->At(0, frame, 0);
  const double apart = std::max(
      {std::fabs(pose[0] - ramp.x), std::fabs(pose[1] - ramp.y), std::fabs(pose[2] - ramp.z)});
  return {static_cast<long>(frame),
          std::max(apart / (0.00254 / 2 + 1e-5), AngleError(pose[3], ramp.azimuth) / 0.0126)};
}

// 180 degrees in 32767.
Found FindIntertrax(const std::array<float, 6>& pose, unsigned) {
  const long frame = std::lround(pose[3] * kDegrees) + 180;
  const MotionPose ramp = MakeRamp()->At(0, static_cast<std::uint64_t>(frame), 0);
  const double apart =
      std::max({AngleError(pose[3], ramp.azimuth), AngleError(pose[4], ramp.elevation),
                AngleError(pose[5], ramp.roll)});
  return {frame, apart / (180.0 / 32767)};
}

// Single-precision radians: 1.9e-9 near the place that is emulated, 1.2 cm on the ground, and that
// twice: the first fix is the origin.
Found FindGps(const std::array<float, 6>& pose, unsigned) {
  const long frame = std::lround(static_cast<double>(pose[0]) / 0.05);
  const double apart = std::fabs(static_cast<double>(pose[0]) - 0.05 * static_cast<double>(frame));
  return {frame, apart / 0.0125};
}

// A position and three angles, with the largest error that the record's values may have.
template <double kCentimetre, double kFar, double kAngle>
Found FindInRamp(const std::array<float, 6>& pose, unsigned station) {
  const double x = pose[0] / kCentimetre, y = pose[1] / kCentimetre, z = pose[2] / kCentimetre;
  const std::uint64_t frame = RampFrame(x, z);
  const MotionPose ramp = MakeRamp()->At(station, frame, 0);
  const double apart =
      std::max({std::fabs(x - ramp.x), std::fabs(y - ramp.y), std::fabs(z - ramp.z)});
  const double turned =
      std::max({AngleError(pose[3], ramp.azimuth), AngleError(pose[4], ramp.elevation),
                AngleError(pose[5], ramp.roll)});
  return {static_cast<long>(frame), std::max(apart / kFar, turned / kAngle)};
}

// 365.76 cm and 180 degrees in 8192; half a turn is one step beyond the range.
template <double kCentimetre>
constexpr auto FindFlock = FindInRamp<kCentimetre, 0.51 * 365.76 / 8192, 1.01 * 180 / 8192>;

// Floats; 300 cm and 180 degrees in 32768; 166.3192 cm and 4 radians in 32768.
template <double kCentimetre>
constexpr auto FindFastrak = FindInRamp<kCentimetre, 1e-4, 6e-4>;
constexpr auto FindInsidetrak = FindInRamp<1.0, 0.51 * 300 / 32768, 1.01 * 180 / 32768>;
constexpr auto FindIsotrak2 = FindInRamp<1.0, 0.51 * 166.3192 / 32768, 0.51 * 4 * kDegrees / 32768>;

// 360 degrees in 4000, and nothing else.
Found FindPanTilt(const std::array<float, 6>& pose, unsigned) {
  const long frame = std::lround(pose[3] * kDegrees) + 180;
  const double apart =
      std::max(AngleError(pose[3], static_cast<double>(frame - 180)),
               AngleError(pose[4], 20 * std::sin(static_cast<double>(frame) / kDegrees)));
  return {frame, pose[0] == 0 ? apart / (0.51 * 360 / 4000) : 1e9};
}

using Find = Found(const std::array<float, 6>& pose, unsigned station);

struct Tracker {
  const char* name;
  const char* device;
  int type;
  Arguments ofEmulator;
  Arguments ofTracker;
  Find* find;
  int frames;             // to be published
  long turn = 0;          // frames after which poses come again; 0: never
  int from = 1;           // the frame from which on each is the device's next
  bool unmarked = false;  // its records have no mark: noise just before one shifts it
  unsigned stations = 1;
  Environment environment = {};

  Found FindIn(const SharedTrackBlock& block, unsigned station = 0) const {
    return find(std::to_array(block.poses[station]), station);
  }
};

class SerialRun : public testing::TestWithParam<Tracker> {
 protected:
  static EmulatedRun Start(Arguments faults = {}) {
    const Tracker& row = GetParam();
    faults.insert(faults.begin(), row.ofEmulator.begin(), row.ofEmulator.end());
    faults.push_back("--motion=ramp");
    return {row.device, row.type, faults, row.ofTracker, row.environment};
  }

  static std::vector<SharedTrackBlock> Watch(EmulatedRun& run, int count) {
    auto blocks = run.Watch(count);
    const int published =
        blocks.empty() ? -1 : blocks.back().frameCount - blocks.front().frameCount;
    EXPECT_GE(published, count) << run.tracker().error();
    return blocks;
  }
};

std::size_t Occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; ++count) {
    at = text.find(part, at + 1);
  }
  return count;
}

// On a machine that is far too busy an answer may come too late, or records wait for so long that
// the driver drops them: then the console says so.
std::size_t FailuresAnnounced(ChildProcess& tracker) {
  return Occurrences(tracker.output(), "e\b") +
         Occurrences(tracker.error(), "waited for more than half a second");
}

TEST_P(SerialRun, LosesNothingAndDoublesNothing) {
  const Tracker& row = GetParam();
  EmulatedRun run = Start();
  // The frames of all stations' poses less the frames that were published: one number for the whole
  // run, as each publication brings the next frame of one station.
  std::set<long> shifts;
  double worst = 0;
  for (const SharedTrackBlock& block : Watch(run, row.frames)) {
    if (block.frameCount < row.from) continue;
    long shift = -block.frameCount;
    for (unsigned station = 0; station < row.stations; ++station) {
      const Found found = row.FindIn(block, station);
      shift += found.frame;
      worst = std::max(worst, found.error);
    }
    shifts.insert(row.turn > 0 ? (shift % row.turn + row.turn) % row.turn : shift);
  }
  // A sanitizer's program may be so slow that answers come too late and the line has no room.
  const auto share = [&](int part) { return static_cast<std::size_t>(row.frames / part); };
  const std::size_t announced = FailuresAnnounced(run.tracker());
  EXPECT_LE(announced, share(kMayLoseFrames ? 4 : 100));
  EXPECT_LE(shifts.size(), 1 + announced + (kMayLoseFrames ? share(2) : 0));
  EXPECT_LE(worst, 1.0);
  EXPECT_EQ(run.Stop(), 0);
}

// The receiver's line carries no more than some fifteen positions a second, so it runs for fewer
// frames. Of a head's first two answers, to the boot and to the first poll, the first one counts.
const Tracker kLogitech{"Logitech", "logitech", 4, {}, {}, FindLogitech, 1000};
const Tracker kIntertrax{"Intertrax", "intertrax", 9, {}, {}, FindIntertrax, 1000, kTurn, 1, true};
const Tracker kGps{"Gps", "gps", kGpsType, {"--rate=15"}, {}, FindGps, 300};
const Tracker kFlock{"Flock", "flock", 3, {"--start=half-record"}, {}, FindFlock<1.0>, 1000};
const Tracker kFastrak{"Fastrak", "fastrak", 2, {"--start=streaming"}, {}, FindFastrak<1.0>, 1000};
const Tracker kPanTilt{"PanTilt", "pan-tilt", 1, {}, {}, FindPanTilt, 400, kTurn, 2};

// The Liberty's line is its library's, and so is the known motion of the one without a line.
const Environment kLibrary = {{"KINETREL_PDI", KINETREL_PDI_SUBSTITUTE}};
const Environment kLibraryOnLine = {kLibrary[0], {"KINETREL_PDI_SERIAL", "1"}};
const Tracker kLiberty{"Liberty", "liberty", 10, {"--stations=1"}, {}, FindFastrak<1.0>, 1000, 0,
                       1,         false,     1,  kLibraryOnLine};
const Tracker kKnownMotion{"LibertyOfKnownMotion",
                           "liberty",
                           10,
                           {},
                           {},
                           FindFastrak<1.0>,
                           1000,
                           0,
                           1,
                           false,
                           1,
                           kLibrary};

// The same tracker, told otherwise. Until each station was published once, its pose is empty.
Tracker With(Tracker row, const char* name, Arguments ofEmulator, Arguments ofTracker, Find* find,
             int frames, unsigned stations = 1) {
  row.name = name;
  row.ofEmulator = std::move(ofEmulator);
  row.ofTracker = std::move(ofTracker);
  row.find = find;
  row.frames = frames;
  row.stations = stations;
  row.from = std::max(row.from, static_cast<int>(stations));
  return row;
}

INSTANTIATE_TEST_SUITE_P(
    Of, SerialRun,
    testing::Values(
        kLogitech, kIntertrax, kGps, kFlock, kFastrak, kPanTilt, kLiberty, kKnownMotion,
        With(kFastrak, "FastrakPolledInInchesAfterHalfACommand", {"--start=half-command"},
             {"-z-", "-u", "0"}, FindFastrak<1 / 2.54>, 300),
        With(kFastrak, "FastrakAtAnotherRateInMetres", {"--baud=57600", "--start=streaming"},
             {"-u", "2"}, FindFastrak<0.01>, 300),
        With(kFastrak, "FastrakOfFourStations", {"--start=half-record"}, {"-s", "0xF"},
             FindFastrak<1.0>, 1000, 4),
        With(kFastrak, "Insidetrak", {"--model=insidetrak"}, {"-s", "3"}, FindInsidetrak, 200, 2),
        With(kFastrak, "Isotrak2Polled", {"--model=isotrak2"}, {"-s", "3"}, FindIsotrak2, 200, 2),
        With(kFastrak, "Is600WithAnErrorAndThreeSensorsMore", {"--model=is600", "--error=W"}, {},
             FindFastrak<1.0>, 100),
        With(kFlock, "FlockPolledInInchesAfterHalfACommand", {"--start=half-command"},
             {"-z-", "-u", "0"}, FindFlock<1 / 2.54>, 1000),
        With(kFlock, "FlockOfWholeRecordsInMetresThatStreamed", {"--whole", "--start=streaming"},
             {"-u", "2"}, FindFlock<0.01>, 1000),
        With(kPanTilt, "PanTiltThatStillAnswers", {"--start=half-answer"}, {}, FindPanTilt, 400),
        With(kLiberty, "LibertyThatStreamed", {"--start=streaming", "--last-cycle"}, {},
             FindFastrak<1.0>, 1000),
        With(kLiberty, "LibertyAfterHalfACommand",
             {"--start=half-command", "--blank-good", "--bit=8"}, {}, FindFastrak<1.0>, 1000)),
    [](const auto& row) { return std::string(row.param.name); });

// A pose of the ramp tells its frame, and so when it was measured. Its lateness must not grow. The
// smallest one of the first second is compared with that of the last, as the machine may delay any.
TEST(FastrakLevel, FourStationsAtFullRateDoNotFallBehind) {
  constexpr double kFrameRate = 30;
  EmulatedRun run("fastrak", 2, {"--motion", "ramp"}, {"-s", "0xF"});
  const auto begin = std::chrono::steady_clock::now();
  const auto lateness = [&] {
    double least = 1e9;
    for (int i = 0; i < 30; ++i) {
      const auto seen = run.Watch(0);
      if (seen.empty()) return 1e9;
      const std::chrono::duration<double> now = std::chrono::steady_clock::now() - begin;
      const auto frame = static_cast<double>(kFastrak.FindIn(seen.back()).frame);
      least = std::min(least, now.count() - frame / kFrameRate);
    }
    return least;
  };
  ASSERT_FALSE(run.Watch(8).empty()) << run.tracker().error();
  const double first = lateness();
  ASSERT_FALSE(run.Watch(2400).empty());
  EXPECT_NEAR(lateness(), first, 0.040);
  EXPECT_EQ(run.Stop(), 0);
}

// ---- Faults --------------------------------------------------------------------------------

class SerialFaults : public SerialRun {};

// Noise between the records and records that break off: those are lost and nothing else is; no
// record is made up of the wrong bytes, and none comes again. The noise is not for the flock, whose
// records are told by one bit.
TEST_P(SerialFaults, CostNoMoreThanThemselves) {
  const Tracker& row = GetParam();
  Arguments faults = {"--fault=cut@/#25"};
  if (row.type != kFlock.type) faults.emplace_back("--fault=noise:3@/0.4s");
  if (row.type == kFastrak.type) {
    faults.insert(faults.end(), {"--fault=silence:0.5@#100", "--fault=error:B@#150"});
  }
  EmulatedRun run = Start(faults);
  const auto blocks = Watch(run, row.frames / 4);
  long wrong = 0;
  long last = -1;
  for (const SharedTrackBlock& block : blocks) {
    const Found found = row.FindIn(block);
    wrong += found.error > 1 ? 1 : 0;
    if (row.turn > 0) continue;
    EXPECT_GT(found.frame, last) << block.frameCount;
    last = found.frame;
  }
  EXPECT_LE(wrong, row.unmarked ? std::ssize(blocks) / 20 : 0);
}

// The unplugged port comes back after a second, under another name behind the same link.
TEST_P(SerialFaults, OfThePlugAreOvercome) {
  EmulatedRun run = Start({"--fault=unplug:1@usr1"});
  Watch(run, 1);
  run.emulator().Signal(SIGUSR1);
  EXPECT_TRUE(run.tracker().ExpectError("has gone; waiting for it ... "));
  EXPECT_TRUE(run.tracker().ExpectError(" is back after "));
  for (const SharedTrackBlock& block : Watch(run, 20)) {
    EXPECT_LE(GetParam().FindIn(block).error, 1) << block.frameCount;
  }
  EXPECT_EQ(run.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, SerialFaults,
                         testing::Values(kLogitech, kIntertrax, kGps, kFlock, kFastrak, kPanTilt),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- Damage --------------------------------------------------------------------------------

// Where a pose of the circle is wrong: its largest error in cm, two degrees counting as one.
double OffCircle(const Tracker& row, const std::array<float, 6>& pose) {
  const bool places = row.type != kIntertrax.type && row.type != kPanTilt.type;
  const bool angles = row.type != kGps.type;
  const double turned =
      places ? std::atan2(pose[1], pose[0] - 40.0) : pose[3] - std::numbers::pi / 2;
  double off = 0;
  if (places) {
    off = std::max(std::fabs(std::hypot(pose[0] - 40.0, pose[1]) - 30), std::fabs(pose[2] - 20.0));
  }
  if (angles) {
    off = std::max({off, AngleError(pose[3], turned * kDegrees + 90) * 0.5,
                    AngleError(pose[4], 10 * std::sin(turned)) * 0.5});
  }
  if (angles && row.type != kPanTilt.type) {
    off = std::max(off, AngleError(pose[5], 20 * std::cos(turned)) * 0.5);
  }
  return off;
}

class SerialDamage : public SerialRun {};

// Every fifth record has three random bytes, while the sensor turns once a second. The driver tells
// most of them by how the sensor moved before. An error counts from 1.5 mm or 0.3 degrees on.
TEST_P(SerialDamage, FewDamagedRecordsArePublished) {
  const Tracker& row = GetParam();
  Arguments faults = row.ofEmulator;
  faults.insert(faults.end(), {"--fault=garble:3@/#5", "--motion=circle:30,1"});
  EmulatedRun run(row.device, row.type, faults, row.ofTracker, row.environment);
  const auto blocks = run.Watch(400);
  ASSERT_FALSE(blocks.empty()) << run.tracker().error();
  const auto wrong = std::count_if(blocks.begin(), blocks.end(), [&](const auto& block) {
    // The first ones teach the driver how the sensor moves.
    return block.frameCount > 20 && OffCircle(row, std::to_array(block.poses[0])) > 0.15;
  });
  const double damaged = static_cast<double>(blocks.size()) / 5;
  const double share = static_cast<double>(wrong) / damaged;
  RecordProperty("percent", std::to_string(100 * share));
  EXPECT_LE(share, kMayLoseFrames ? 0.3 : 0.05);
}

INSTANTIATE_TEST_SUITE_P(Of, SerialDamage,
                         testing::Values(kFastrak, kFlock, kLogitech, kIntertrax, kPanTilt,
                                         kLiberty),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- Honest motion -------------------------------------------------------------------------

class SerialFastMotion : public SerialRun {};

// 4.7 m/s and 900 degrees a second: the judge of poses takes no record for a damaged one.
TEST_P(SerialFastMotion, CostsNoRecord) {
  const Tracker& row = GetParam();
  Arguments motion = row.ofEmulator;
  motion.emplace_back("--motion=circle:30,0.4");
  EmulatedRun run(row.device, row.type, motion, row.ofTracker, row.environment);
  ASSERT_FALSE(run.Watch(row.frames / 4).empty()) << run.tracker().error();
  kinetrel_stream stream;
  ASSERT_EQ(kinetrel_stream_open(&stream, run.slot(), 20'000), kinetrel_stream_ok);
  kinetrel_run figures{};
  EXPECT_EQ(kinetrel_stream_run(&stream, &figures), kinetrel_stream_ok);
  kinetrel_stream_close(&stream);
  // A machine that is far too busy may cut a record.
  const std::size_t announced = FailuresAnnounced(run.tracker());
  EXPECT_LE(figures.dropped, announced + (kMayLoseFrames ? figures.frames / 4 : 0));
}

INSTANTIATE_TEST_SUITE_P(
    Of, SerialFastMotion,
    testing::Values(kFlock, kFastrak, kLogitech, kIntertrax, kPanTilt, kLiberty,
                    With(kFastrak, "FastrakOfFourStations", {}, {"-s", "0xF"}, nullptr, 1000, 4),
                    With(kLiberty, "LibertyOfFourOnAThinLine", {"--stations=4"}, {"-s", "0xF"},
                         nullptr, 1000, 4)),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Sensors that the device lacks ---------------------------------------------------------

class SerialSensors : public testing::TestWithParam<Tracker> {};

TEST_P(SerialSensors, ThatAreMissingAreReportedAndSensor1IsSampled) {
  EmulatedRun run(GetParam().device, GetParam().type, {"--motion=ramp"}, {"-s", "2"});
  EXPECT_TRUE(run.tracker().ExpectError(" has no sensor of the mask 0x2; sensor 1 is sampled"));
  const auto blocks = run.Watch(5);
  ASSERT_FALSE(blocks.empty()) << run.tracker().error();
  EXPECT_LE(GetParam().FindIn(blocks.back()).error, 1);
}

INSTANTIATE_TEST_SUITE_P(Of, SerialSensors,
                         testing::Values(kLogitech, kFlock, kPanTilt, kIntertrax),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- A line that is too slow -----------------------------------------------------------------

TEST(SerialRuns, TellWhatASlowLineCarries) {
  if (kMayLoseFrames)
    GTEST_SKIP() << "the search for the rate has deadlines that a sanitizer misses";
  EmulatedRun slow("fastrak", 2, {"--baud", "9600"});
  EXPECT_TRUE(slow.tracker().ExpectError("Running ..."));
  EXPECT_NE(
      slow.tracker().error().find("Rate = 120 Hz.\n\t\tThe line carries 35 of them at 9600 baud"),
      std::string::npos)
      << slow.tracker().error();
  EmulatedRun fast("fastrak", 2);
  EXPECT_TRUE(fast.tracker().ExpectError("Running ..."));
  EXPECT_EQ(fast.tracker().error().find("The line carries"), std::string::npos);
}

}  // namespace
}  // namespace kinetrel::test

// The emulated FASTRAK family with several stations, the program and a client: what the client sees
// is the units' motion. The runs of one station are with those of the other serial trackers.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>

#include "drivers/driver_table.h"
#include "emulate/device_table.h"
#include "emulate/emulator.h"
#include "emulate/motion.h"
#include "tests/support/emulated_run.h"

namespace kinetrel::test {
using namespace emulate;
namespace {

constexpr double kRadians = 3.14159265358979 / 180;

// How far a value may be off by what its record can carry.
struct Precision {
  double centimetres;
  double radians;
};
constexpr Precision kFloats = {1e-4, 1e-5};
constexpr Precision kFastrakWords = {0.51 * 300 / 32768, 1.01 * 180 / 32768 * kRadians};
constexpr Precision kFastrakHalves = {0.51 * 300 / 8192, 1.01 * 180 / 8192 * kRadians};
constexpr Precision kIsotrakWords = {0.51 * 166.3192 / 32768, 0.51 * 4.0 / 32768};

double Turned(double seen, double degrees) {
  return std::remainder(seen - degrees * kRadians, 360 * kRadians);
}

// Pitch is told within half a turn: the pose may be the same one turned over.
void ExpectPose(const float* seen, const MotionPose& pose, const Precision& within) {
  EXPECT_NEAR(seen[0], pose.x, within.centimetres);
  EXPECT_NEAR(seen[1], pose.y, within.centimetres);
  EXPECT_NEAR(seen[2], pose.z, within.centimetres);
  EXPECT_NEAR(Turned(seen[3], pose.azimuth), 0, within.radians);
  EXPECT_NEAR(Turned(seen[4], pose.elevation), 0, within.radians);
  EXPECT_NEAR(Turned(seen[5], pose.roll), 0, within.radians);
}

// ---- The whole road ------------------------------------------------------------------------

struct Road {
  const char* name;
  std::vector<std::string> ofEmulator;
  std::vector<std::string> ofTracker;
  int stations;
  int publications;
  Precision precision;
};

class FastrakRun : public testing::TestWithParam<Road> {
 protected:
  // The frames that the poses of a block tell, all stations' together. Every publication brings
  // one station's next one.
  long FramesIn(const SharedTrackBlock& block) const {
    long sum = 0;
    for (int i = 0; i < GetParam().stations; ++i) sum += Frame(block, i);
    return sum;
  }

  static long Frame(const SharedTrackBlock& block, int station) {
    const auto& seen = block.poses[static_cast<std::size_t>(station)];
    return static_cast<long>(RampFrame(seen[0], seen[2]));
  }
};

TEST_P(FastrakRun, EveryFrameReachesTheClient) {
  const Road& told = GetParam();
  std::vector<std::string> emulated = told.ofEmulator;
  emulated.insert(emulated.end(), {"--motion", "ramp"});
  EmulatedRun run("fastrak", 2, emulated, told.ofTracker);
  auto blocks = run.Watch(told.publications + told.stations);
  ASSERT_FALSE(blocks.empty()) << run.tracker().error();
  EXPECT_GE(blocks.back().frameCount - blocks.front().frameCount, told.publications);
  // Before each station was published once, its pose is none.
  std::erase_if(blocks, [&](const auto& block) { return block.frameCount < told.stations; });
  const auto ramp = MakeRamp();
  std::optional<long> ahead;
  for (const SharedTrackBlock& block : blocks) {
    const long difference = FramesIn(block) - block.frameCount;
    ASSERT_EQ(difference, ahead.value_or(difference)) << block.frameCount;
    ahead = difference;
    for (int station = 0; station < told.stations; ++station) {
      const auto index = static_cast<unsigned>(station);
      const auto frame = static_cast<std::uint64_t>(Frame(block, station));
      ExpectPose(block.poses[index], ramp->At(index, frame, 0), told.precision);
    }
    ASSERT_FALSE(HasFailure()) << block.frameCount;
  }
  EXPECT_EQ(run.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Of, FastrakRun,
    testing::Values(
        Road{"FourStationsStreamed", {"--start=half-record"}, {"-s", "0xF"}, 4, 1000, kFloats},
        Road{"Insidetrak", {"--model=insidetrak"}, {"-s", "3"}, 2, 200, kFastrakWords},
        Road{"Isotrak2Polled", {"--model=isotrak2"}, {"-s", "3"}, 2, 200, kIsotrakWords},
        Road{"Is600WithAnErrorAndThreeSensorsMore",
             {"--model=is600", "--error=W"},
             {},
             1,
             100,
             kFloats}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Level ---------------------------------------------------------------------------------

// A pose of the ramp tells its frame, and so when it was measured. How late it is may not grow,
// whoever of the chain would be too slow: the smallest lateness of the first second and of the last
// are compared, as any single one may be hit by what else the machine does.
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
      const auto& pose = seen.back().poses[0];
      const auto frame = static_cast<double>(RampFrame(pose[0], pose[2]));
      least = std::min(least, now.count() - frame / kFrameRate);
    }
    return least;
  };
  ASSERT_FALSE(run.Watch(8).empty()) << run.tracker().error();
  const double first = lateness();
  const auto watched = run.Watch(2400);
  ASSERT_FALSE(watched.empty());
  EXPECT_NEAR(lateness(), first, 0.040);
  EXPECT_EQ(run.Stop(), 0);
}

// ---- All values and formats ----------------------------------------------------------------

struct Format {
  const char* name;
  const char* model;
  int protocol;
  bool crLf;
  Precision precision;
  double quaternionStep;
  int frames;
};

class FastrakFormats : public testing::TestWithParam<Format> {};

// The driver on its own: no option of the program chooses the protocol.
TEST_P(FastrakFormats, CarryAllValues) {
  const Format& format = GetParam();
  const DeviceRow& row = *FindDevice("fastrak");
  const char* const arguments[] = {"--model", format.model};
  OptionValues values = OptionValues::Parse(arguments, {row.options()});
  const auto ramp = MakeRamp();
  EmulatorOptions options;
  options.line.baud = row.baud;
  auto unit = EmulatorThread::Start(row.make(values, ramp), options);
  ASSERT_TRUE(unit.Ok());
  const auto made = MakeDevice(2);
  TrackerDevice& device = *made;
  device.SetCrLf(format.crLf ? 1 : 0);
  ASSERT_EQ(device.OpenPort((*unit)->Port().c_str(), 115200), 1);
  ASSERT_EQ(device.Boot(0), kBooted);
  ASSERT_EQ(device.SetProtocol(format.protocol), format.protocol);
  ASSERT_EQ(device.SetComponentMask(7), 1U);
  device.StartContinuous();
  std::optional<std::uint64_t> last;
  for (int i = 0; i < format.frames; ++i) {
    // On a busy machine the unit may come late; what it sends is not lost.
    ASSERT_TRUE(WaitUntil([&] { return device.ReadFrame(nullptr) == 1; })) << i;
    const float* const pose = device.GetSensorPose(0);
    const std::uint64_t frame = RampFrame(pose[0], pose[2]);
    // A machine that stops this process for half a second costs the records of that time.
    const std::uint64_t step = frame - last.value_or(frame - 1);
    ASSERT_TRUE(step == 1 || (step > 7 && step < 100)) << i << " " << step;
    last = frame;
    const MotionPose moved = ramp->At(0, frame, 0);
    ExpectPose(pose, moved, format.precision);
    const float angles[3] = {static_cast<float>(moved.azimuth * kRadians),
                             static_cast<float>(moved.elevation * kRadians),
                             static_cast<float>(moved.roll * kRadians)};
    const Quaternion turned = EulerToQuaternion(angles);
    const float* const seen = device.GetSensorQuaternion(0);
    double same = 0;
    for (std::size_t part = 0; part < 4; ++part) same += double{turned[part]} * seen[part];
    const double sign = same < 0 ? -1 : 1;
    for (std::size_t part = 0; part < 4; ++part) {
      ASSERT_NEAR(seen[part], sign * turned[part], format.quaternionStep) << i;
    }
    ASSERT_FALSE(HasFailure()) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Of, FastrakFormats,
    testing::Values(Format{"Bits32WithTails", "fastrak", 3, true, kFloats, 1e-6, 200},
                    Format{"Bits14", "fastrak", 1, false, kFastrakHalves, 1.01 / 8192, 1000},
                    Format{"Bits14WithTails", "fastrak", 1, true, kFastrakHalves, 1.01 / 8192, 200},
                    Format{"Bits16WithTails", "isotrak2", 2, true, kIsotrakWords, 1.01 / 32768,
                           1000}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace kinetrel::test

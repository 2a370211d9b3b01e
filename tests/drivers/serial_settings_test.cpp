// Serial trackers under changing settings: every unit, component, station and record format shows
// the pose of the emulated unit, and a change at the full rate never shows a wrong one.
#include <gtest/gtest.h>
#include <kinetrel/stream.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <numbers>
#include <numeric>
#include <optional>
#include <random>

#include "drivers/driver_table.h"
#include "emulate/device_table.h"
#include "emulate/emulator.h"
#include "emulate/motion.h"
#include "engine/tracker_engine.h"
#include "publish/shared_track_reader.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/support/substitute_settings.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

using namespace emulate;

constexpr double kRadians = std::numbers::pi / 180;

// Every station at a place of its own.
class Standing final : public Motion {
 public:
  MotionPose At(unsigned station, std::uint64_t, double) const override {
    const double n = station;
    return {20 + 10 * n, -12 - 5 * n, 7 + 9 * n, 30 + 15 * n, -20 + 7 * n, 10 + 11 * n};
  }
};

EmulatorThread StartUnit(const char* device, std::vector<const char*> arguments,
                         std::shared_ptr<const Motion> motion) {
  const DeviceRow& row = *FindDevice(device);
  OptionValues values = OptionValues::Parse(arguments, row.options());
  EmulatorOptions options;
  options.line.baud = row.baud;
  auto unit = EmulatorThread::Start(row.make(values, std::move(motion)), options);
  EXPECT_TRUE(unit.Ok());
  return std::move(*unit);
}

void ExpectPosition(const float* seen, const MotionPose& held, double unit, double centimetres) {
  EXPECT_NEAR(seen[0], held.x * unit, centimetres * unit);
  EXPECT_NEAR(seen[1], held.y * unit, centimetres * unit);
  EXPECT_NEAR(seen[2], held.z * unit, centimetres * unit);
}

void ExpectAngle(double seen, double degrees, double within) {
  EXPECT_NEAR(std::remainder(seen / kRadians - degrees, 360), 0, within);
}

// Both signs are the same rotation.
void ExpectQuaternion(const float* seen, const MotionPose& held, double within) {
  const float angles[3] = {static_cast<float>(held.azimuth * kRadians),
                           static_cast<float>(held.elevation * kRadians),
                           static_cast<float>(held.roll * kRadians)};
  const Quaternion turned = EulerToQuaternion(angles);
  const double same = std::inner_product(turned.begin(), turned.end(), seen, 0.0);
  for (std::size_t k = 0; k < 4; ++k)
    EXPECT_NEAR(seen[k], std::copysign(1, same) * turned[k], within);
}

// ---- Changes -------------------------------------------------------------------------------

constexpr int kGps = 12;

struct Row {
  const char* name;
  const char* device;
  int type;
  std::vector<const char*> options;
  std::vector<int> masks;
  std::vector<int> components;
  std::vector<const char*> protocols;
  bool positions;  // that the device measures
  bool elevation;
  double step;  // of an angle as it is sent, in degrees; a position's is twice that, in cm
  std::vector<int> units = {0, 1, 3};
};

class SerialSettings : public testing::TestWithParam<Row> {
 protected:
  SerialSettings()
      : unit_(StartUnit(GetParam().device, GetParam().options, std::make_shared<Standing>())),
        engine_(AllDrivers()),
        reader_(slot_.device()) {
    SetVariable("KINETREL_COM5", unit_->Port());
    library_.Set("SERIAL", "1");
    StartConfig config;
    config.shmDevice = slot_.device();
    engine_.Configure(config);
    EXPECT_EQ(engine_.Open(GetParam().type, 5, false), OpenResult::Opened);
    EXPECT_TRUE(engine_.StartSampling());
  }

  template <typename Value>
  Value OneOf(const std::vector<Value>& values) {
    return values[random_() % values.size()];
  }

  void ChangeOne() {
    const Row& row = GetParam();
    const auto set = [this](EngineAttribute id, int value) {
      engine_.SetAttributeInt(static_cast<int>(id), value);
    };
    switch (random_() % 4) {
      case 0:
        set(EngineAttribute::SensorMask, OneOf(row.masks));
        break;
      case 1:
        set(EngineAttribute::ComponentMask, OneOf(row.components));
        break;
      case 2:
        set(EngineAttribute::Units, OneOf(row.units));
        break;
      default:
        engine_.SetAttributeString(static_cast<int>(EngineAttribute::Protocol),
                                   OneOf(row.protocols));
    }
  }

  // Another one with every run; 0: none yet.
  std::uint64_t Run() const {
    kinetrel_stream stream;
    const bool open = kinetrel_stream_open(&stream, slot_.slot(), 0) == kinetrel_stream_ok;
    const std::uint64_t instance = open ? stream.head.instance : 0;
    kinetrel_stream_close(&stream);
    return instance;
  }

  // The blocks of the run after `before`, checked until its second frame is whole.
  bool SeesTwoFrames(std::uint64_t before) {
    return WaitUntil([&] {
      SharedTrackBlock block{};
      const std::uint64_t run = Run();
      if (run == 0 || run == before) return false;
      if (!reader_.OpenOnly(0) || !reader_.Copy(block, Milliseconds(1000))) return false;
      const int active = std::popcount(SensorMaskOf(block));
      if (active == 0 || block.frameCount < active) return false;
      GetParam().type == kGps ? CheckPlaces(block) : CheckPoses(block);
      return block.frameCount >= 2 * active;
    });
  }

  static void CheckPoses(const SharedTrackBlock& block) {
    const int units = UnitsOf(block);
    const double unit = units == 0 ? 1 / 2.54 : units == 3 ? 0.01 : 1;
    const double step = GetParam().step;
    for (unsigned i = 0; i < 4; ++i) {
      if ((SensorMaskOf(block) >> i & 1) == 0) continue;
      const MotionPose held = Standing().At(i, 0, 0);
      const auto* const pose = block.poses[i];
      SCOPED_TRACE(i);
      if (GetParam().positions && (ComponentMaskOf(block) & kPositionComponent) != 0) {
        ExpectPosition(pose, held, unit, 2 * step);
      }
      if ((ComponentMaskOf(block) & kEulerComponent) != 0) {
        ExpectAngle(pose[3], held.azimuth, step);
        if (!GetParam().elevation) continue;
        ExpectAngle(pose[4], held.elevation, step);
      }
      if ((ComponentMaskOf(block) & kQuaternionComponent) != 0) {
        ExpectQuaternion(block.quaternions[i], held, step / 40);
      }
    }
  }

  // The first fix is the origin of sensor 1. The others are kilometres and degrees, with an
  // altitude in the unit of lengths.
  static void CheckPlaces(const SharedTrackBlock& block) {
    const double unit = UnitsOf(block) == 0 ? 100 / 2.54 : UnitsOf(block) == 1 ? 100 : 1;
    const MotionPose held = Standing().At(0, 0, 0);
    const double north = 6371.3 * kRadians + held.x * .001;
    const double east = 6378.137 * kRadians + held.y * .001;
    const double places[3][3] = {
        {0, 0, 0},
        {north, east, (100 + held.z) * unit},
        {north / 6371.3 / kRadians, east / 6378.137 / kRadians, (100 + held.z) * unit}};
    for (unsigned i = 0; i < 3; ++i) {
      if ((SensorMaskOf(block) >> i & 1) == 0) continue;
      for (unsigned k = 0; k < 3; ++k) {
        const double within = k < 2 ? GetParam().step : GetParam().step * unit;
        EXPECT_NEAR(block.poses[i][k], places[i][k], within) << i << " " << k;
      }
    }
  }

  FreeSlot slot_;
  SubstituteSettings library_{"KINETREL_PDI", KINETREL_PDI_SUBSTITUTE};
  EmulatorThread unit_;
  TrackerEngine engine_;
  SharedTrackReader reader_;
  std::mt19937 random_{1};
};

// Some changes; KINETREL_TEST_CHANGES=1000 makes the long run.
TEST_P(SerialSettings, NeverShowAWrongPose) {
  const char* const asked = std::getenv("KINETREL_TEST_CHANGES");
  const int changes = asked != nullptr ? std::atoi(asked) : 20;
  ASSERT_TRUE(SeesTwoFrames(0));
  for (int i = 0; i < changes && !HasFailure(); ++i) {
    const std::uint64_t before = Run();
    ChangeOne();
    ASSERT_TRUE(SeesTwoFrames(before)) << i << " " << engine_.status().CurrentStatusText();
  }
}

Row Fastrak(const char* name, std::vector<const char*> options, std::vector<int> masks,
            std::vector<const char*> protocols, double step) {
  return {name,
          "fastrak",
          2,
          std::move(options),
          std::move(masks),
          {1, 2, 3, 4, 7},
          std::move(protocols),
          true,
          true,
          step};
}

INSTANTIATE_TEST_SUITE_P(
    Of, SerialSettings,
    testing::Values(Fastrak("Fastrak", {}, {1, 3, 5, 15}, {"1", "3"}, .06),
                    Fastrak("FastrakOfTwo", {"--receivers", "2"}, {1, 2, 3, 15}, {"1", "3"}, .06),
                    Fastrak("Isotrak2", {"--model", "isotrak2"}, {1, 2, 3}, {"2"}, .02),
                    Row{"Flock", "flock", 3, {}, {1, 2}, {3}, {"0"}, true, true, .06},
                    Row{"PanTilt", "pan-tilt", 1, {}, {1, 2}, {2}, {"98", "100"}, false, true, .1},
                    Row{"Logitech", "logitech", 4, {}, {1, 2}, {3}, {"0"}, true, false, .03},
                    Row{"Intertrax", "intertrax", 9, {}, {1, 2}, {1, 3}, {"0"}, false, true, .03},
                    Row{"Gps",
                        "gps",
                        kGps,
                        {"--rate", "15"},
                        {1, 2, 4, 7},
                        {1},
                        {"0"},
                        true,
                        true,
                        .001,
                        {0, 1, 2}},
                    Row{"Liberty",
                        "liberty",
                        10,
                        {"--stations", "4"},
                        {1, 3, 5, 15},
                        {1, 2, 3, 4, 7},
                        {"4", "5"},
                        true,
                        true,
                        .01,
                        {0, 1, 2}},
                    Row{"LibertyOfTwo",
                        "liberty",
                        10,
                        {"--stations", "2"},
                        {1, 2, 3},
                        {1, 2, 3, 4, 7},
                        {"4", "5"},
                        true,
                        true,
                        .01,
                        {0, 1, 2}}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Formats -------------------------------------------------------------------------------

struct Format {
  const char* name;
  const char* model;
  int protocol;
  bool crLf;
  double centimetres, degrees, quaternion;  // half a step or a whole one
  int frames;
};

// The records that the driver says it has dropped. It drops those of half a second and more, which
// a machine brings about that stops this process for so long.
std::uint64_t DroppedRecords(const StatusLog& log) {
  std::uint64_t dropped = 0;
  for (const StatusEntry& entry : log.Entries()) {
    unsigned records = 0;
    if (std::sscanf(entry.text.c_str(), "%u records of", &records) == 1) dropped += records;
  }
  return dropped;
}

class FastrakFormats : public testing::TestWithParam<Format> {};

// The driver on its own: no option of the program chooses the protocol.
TEST_P(FastrakFormats, CarryAllValues) {
  const Format& format = GetParam();
  const auto ramp = MakeRamp();
  const EmulatorThread unit = StartUnit("fastrak", {"--model", format.model}, ramp);
  const auto made = MakeDevice(2);
  TrackerDevice& device = *made;
  StatusLog log;
  device.SetStatusLog(&log);
  device.SetCrLf(format.crLf ? 1 : 0);
  ASSERT_EQ(device.OpenPort(unit->Port().c_str(), 115200), 1);
  ASSERT_EQ(device.Boot(0), kBooted);
  ASSERT_EQ(device.SetSensorMask(1, 0), 1U);
  ASSERT_EQ(device.SetProtocol(format.protocol), format.protocol);
  ASSERT_EQ(device.SetComponentMask(7), 1U);
  device.StartContinuous();
  std::optional<std::uint64_t> last;
  std::uint64_t dropped = 0;
  for (int i = 0; i < format.frames && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    // On a busy machine the unit may come late; what it sends is not lost.
    ASSERT_TRUE(WaitUntil([&] { return device.ReadFrame(nullptr) == 1; }));
    const float* const pose = device.GetSensorPose(0);
    const std::uint64_t frame = RampFrame(pose[0], pose[2]);
    const std::uint64_t said = DroppedRecords(log) - std::exchange(dropped, DroppedRecords(log));
    const std::uint64_t lost = last ? frame - *last - 1 : said;
    // Where a record waited too long, the line may have had no room for more.
    ASSERT_TRUE(lost == said || (said > 0 && lost > said)) << lost << " lost, said " << said;
    last = frame;
    const MotionPose moved = ramp->At(0, frame, 0);
    ExpectPosition(pose, moved, 1, format.centimetres);
    ExpectAngle(pose[3], moved.azimuth, format.degrees);
    ExpectAngle(pose[4], moved.elevation, format.degrees);
    ExpectAngle(pose[5], moved.roll, format.degrees);
    ExpectQuaternion(device.GetSensorQuaternion(0), moved, format.quaternion);
  }
}

Format Halves(const char* name, bool crLf, int frames) {
  return {name, "fastrak", 1, crLf, 0.51 * 300 / 8192, 1.01 * 180 / 8192, 1.01 / 8192, frames};
}

INSTANTIATE_TEST_SUITE_P(
    Of, FastrakFormats,
    testing::Values(Format{"Bits32WithTails", "fastrak", 3, true, 1e-4, 6e-4, 1e-6, 200},
                    Halves("Bits14", false, 1000), Halves("Bits14WithTails", true, 200),
                    Format{"Bits16WithTails", "isotrak2", 2, true, 0.51 * 166.3192 / 32768,
                           0.51 * 4 / 32768 / kRadians, 1.01 / 32768, 1000}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace kinetrel::test

// A host changes settings at random while a serial tracker samples at its full rate. The emulated
// sensors stand still, so a client can tell every pose in a wrong unit, component or station.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <numbers>
#include <optional>
#include <random>

#include "drivers/driver_table.h"
#include "emulate/device_table.h"
#include "emulate/emulator.h"
#include "engine/tracker_engine.h"
#include "publish/shared_track_reader.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
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
};

class SerialSettings : public testing::TestWithParam<Row> {
 protected:
  SerialSettings() : engine_(AllDrivers()), reader_(slot_.device()) {
    const DeviceRow& row = *FindDevice(GetParam().device);
    OptionValues values = OptionValues::Parse(GetParam().options, {row.options()});
    EmulatorOptions options;
    options.line.baud = row.baud;
    auto unit = EmulatorThread::Start(row.make(values, std::make_shared<Standing>()), options);
    EXPECT_TRUE(unit.Ok());
    unit_.emplace(std::move(*unit));
    SetVariable("KINETREL_COM5", (*unit_)->Port());
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
        set(EngineAttribute::Units, OneOf<int>({0, 1, 3}));
        break;
      default:
        engine_.SetAttributeString(static_cast<int>(EngineAttribute::Protocol),
                                   OneOf(row.protocols));
    }
  }

  // The blocks of the present run, checked until its second frame is whole.
  bool SeesTwoFrames(int before) {
    bool restarted = false;
    return WaitUntil([&] {
      SharedTrackBlock block{};
      if (!reader_.OpenOnly(0) || !reader_.Copy(block, Milliseconds(1000))) return false;
      restarted = restarted || block.frameCount < before;
      const int active = std::popcount(SensorMaskOf(block));
      if (!restarted || active == 0 || block.frameCount < active) return false;
      Check(block);
      return block.frameCount >= 2 * active;
    });
  }

  static void Check(const SharedTrackBlock& block) {
    const int units = UnitsOf(block);
    const double unit = units == 0 ? 1 / 2.54 : units == 3 ? 0.01 : 1;
    const double step = GetParam().step;
    for (unsigned i = 0; i < 4; ++i) {
      if ((SensorMaskOf(block) >> i & 1) == 0) continue;
      const MotionPose held = Standing().At(i, 0, 0);
      const auto* const pose = block.poses[i];
      if (GetParam().positions && (ComponentMaskOf(block) & kPositionComponent) != 0) {
        EXPECT_NEAR(pose[0], held.x * unit, 2 * step * unit) << i;
        EXPECT_NEAR(pose[1], held.y * unit, 2 * step * unit) << i;
        EXPECT_NEAR(pose[2], held.z * unit, 2 * step * unit) << i;
      }
      if ((ComponentMaskOf(block) & kEulerComponent) != 0) {
        EXPECT_NEAR(pose[3], held.azimuth * kRadians, step * kRadians) << i;
        if (!GetParam().elevation) continue;
        EXPECT_NEAR(pose[4], held.elevation * kRadians, step * kRadians) << i;
      }
      if ((ComponentMaskOf(block) & kQuaternionComponent) != 0) {
        const float angles[3] = {static_cast<float>(held.azimuth * kRadians),
                                 static_cast<float>(held.elevation * kRadians),
                                 static_cast<float>(held.roll * kRadians)};
        const Quaternion turned = EulerToQuaternion(angles);
        for (std::size_t k = 0; k < 4; ++k) {
          EXPECT_NEAR(block.quaternions[i][k], turned[k], step / 40) << i;
        }
      }
    }
  }

  FreeSlot slot_;
  std::optional<EmulatorThread> unit_;
  TrackerEngine engine_;
  SharedTrackReader reader_;
  std::mt19937 random_{1};
};

// Some changes; KINETREL_TEST_CHANGES=1000 makes the long run.
TEST_P(SerialSettings, NeverShowAWrongPose) {
  const char* const asked = std::getenv("KINETREL_TEST_CHANGES");
  const int changes = asked != nullptr ? std::atoi(asked) : 20;
  const int more = 1 << 30;
  ASSERT_TRUE(SeesTwoFrames(more));
  for (int i = 0; i < changes && !HasFailure(); ++i) {
    SharedTrackBlock block{};
    ASSERT_TRUE(WaitUntil([&] { return reader_.Copy(block, Milliseconds(1000)); }));
    ChangeOne();
    ASSERT_TRUE(SeesTwoFrames(block.frameCount))
        << i << " " << engine_.status().CurrentStatusText();
  }
}

const std::vector<int> kAllComponents = {1, 2, 3, 4, 7};

INSTANTIATE_TEST_SUITE_P(
    Of, SerialSettings,
    testing::Values(Row{"Fastrak",
                        "fastrak",
                        2,
                        {},
                        {1, 3, 5, 15},
                        kAllComponents,
                        {"1", "3"},
                        true,
                        true,
                        .06},
                    Row{"FastrakOfTwo",
                        "fastrak",
                        2,
                        {"--receivers", "2"},
                        {1, 2, 3, 15},
                        kAllComponents,
                        {"1", "3"},
                        true,
                        true,
                        .06},
                    Row{"Isotrak2",
                        "fastrak",
                        2,
                        {"--model", "isotrak2"},
                        {1, 2, 3},
                        kAllComponents,
                        {"2"},
                        true,
                        true,
                        .02},
                    Row{"Flock", "flock", 3, {}, {1, 2}, {3}, {"0"}, true, true, .06},
                    Row{"PanTilt", "pan-tilt", 1, {}, {1, 2}, {2}, {"98", "100"}, false, true, .1},
                    Row{"Logitech", "logitech", 4, {}, {1, 2}, {3}, {"0"}, true, false, .03}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace kinetrel::test

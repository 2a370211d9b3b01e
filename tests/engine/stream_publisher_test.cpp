// A device's poses as records of the stream: metres, radians, a quaternion, and what is not valid.
#include "engine/stream_publisher.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

#include "tests/engine/scripted_device.h"

namespace kinetrel::test {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kQuarter = static_cast<float>(kPi / 2);
constexpr float kHalf = 0.70710678F;

struct Case {
  const char* name;
  RecordContext context;
  Pose pose;
  Quaternion quaternion;
  std::uint32_t flags;
  std::array<double, 3> position;
  Quaternion orientation;
  std::array<float, 3> angles;
};

constexpr unsigned kPlaces = kinetrel_device_position | kinetrel_position_valid;
constexpr unsigned kTurns = kinetrel_device_angles | kinetrel_orientation_valid;
constexpr unsigned kQuaternions = kinetrel_device_quaternion | kinetrel_orientation_valid;
constexpr Quaternion kNone = {kNaN, kNaN, kNaN, kNaN};
constexpr std::array<double, 3> kNowhere = {kNaN, kNaN, kNaN};

const Case kCases[] = {
    {"InchesAndAngles",
     {3, 0, 0},
     {100, 0, -10, kQuarter, 0, 0},
     {},
     kPlaces | kTurns,
     {2.54, 0, -0.254},
     {kHalf, 0, 0, kHalf},
     {kQuarter, 0, 0}},
    {"CentimetresWithTheZeroTakenOffBoth",
     {3, 1, kQuarter},
     {100, 0, 0, kQuarter, 0, 0},
     {},
     kPlaces | kTurns,
     {1, 0, 0},
     {1, 0, 0, 0},
     {0, 0, 0}},
    {"QuaternionAloneGivesAngles",
     {4, 3, 0},
     {},
     {0.5F, 0, 0, 0.5F},
     kQuaternions,
     kNowhere,
     {kHalf, 0, 0, kHalf},
     {kQuarter, 0, 0}},
    {"ZeroTurnsTheDevicesQuaternion",
     {4, 3, kQuarter},
     {},
     {kHalf, 0, 0, kHalf},
     kQuaternions,
     kNowhere,
     {1, 0, 0, 0},
     {0, 0, 0}},
    {"AzimuthStaysWithinHalfATurn",
     {2, 3, -3},
     {0, 0, 0, 3, 0, 0},
     {},
     kTurns,
     kNowhere,
     {std::cos(3.0F), 0, 0, std::sin(3.0F)},
     {static_cast<float>(6 - 2 * kPi), 0, 0}},
    {"PositionAlone",
     {1, 2, 0},
     {1, 2, 3, 9, 9, 9},
     {},
     kPlaces,
     {1, 2, 3},
     kNone,
     {kNaN, kNaN, kNaN}},
    {"NoNumbersAreMarked",
     {7, 3, 0},
     {1, kNaN, 3, 0, 0, 0},
     {kNaN, 0, 0, 0},
     kinetrel_device_position | kinetrel_device_angles | kinetrel_device_quaternion,
     kNowhere,
     kNone,
     {kNaN, kNaN, kNaN}},
    {"AQuaternionOfZerosIsNone",
     {4, 3, 0},
     {},
     {0, 0, 0, 0},
     kinetrel_device_quaternion,
     kNowhere,
     kNone,
     {kNaN, kNaN, kNaN}},
};

void ExpectNear(double seen, double wanted, const char* what) {
  EXPECT_EQ(std::isnan(seen), std::isnan(wanted)) << what;
  if (std::isnan(wanted)) return;
  EXPECT_NEAR(seen, wanted, 1e-5) << what;
}

TEST(StreamRecords, AreInMetresAndRadiansWhateverTheDeviceDelivers) {
  for (const Case& row : kCases) {
    SCOPED_TRACE(row.name);
    Script script;
    ScriptedDevice device(script);
    std::ranges::copy(row.pose, device.GetSensorPose(0));
    std::ranges::copy(row.pose, device.GetSensorPosition(0));
    std::copy_n(row.pose.begin() + 3, 3, device.GetSensorEuler(0));
    std::ranges::copy(row.quaternion, device.GetSensorQuaternion(0));
    const kinetrel_record record = MakeRecord(device, 0, row.context);
    EXPECT_EQ(record.flags, row.flags);
    for (int i = 0; i < 3; ++i) ExpectNear(record.position[i], row.position[std::size_t(i)], "m");
    for (int i = 0; i < 3; ++i) ExpectNear(record.angles[i], row.angles[std::size_t(i)], "rad");
    const bool opposite = record.orientation[0] * row.orientation[0] < 0;  // the same rotation
    for (int i = 0; i < 4; ++i) {
      ExpectNear(record.orientation[i] * (opposite ? -1.0F : 1.0F), row.orientation[std::size_t(i)],
                 "quaternion");
    }
  }
}

TEST(StreamRecords, ASensorWithoutARecordHasNothingValid) {
  Script script;
  script.recordsGone = true;
  ScriptedDevice device(script);
  const kinetrel_record record = MakeRecord(device, 0, {7, 3, 0});
  EXPECT_EQ(record.flags, 0U);
  EXPECT_TRUE(std::isnan(record.position[0]) && std::isnan(record.orientation[0]));
}

}  // namespace
}  // namespace kinetrel::test

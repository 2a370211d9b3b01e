// Axes and units of every target, and what an operator writes about them.
#include "bridge_front/axes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "bridge_front/pose_selector.h"

namespace kinetrel::bridge {
namespace {

// Half a metre forward, a quarter to the left, an eighth down; 30, 20 and 10 degrees.
constexpr double kDegree = std::numbers::pi / 180;
constexpr Angles kWorkedAngles{30 * kDegree, 20 * kDegree, 10 * kDegree};
constexpr Vector kWorkedPosition{0.5, -0.25, 0.125};
constexpr Quaternion kWorked{0.951548525, 0.038134576, 0.189307857, 0.239298338};

void ExpectNear(const Vector& is, const Vector& expected, double scale = 1) {
  for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(is[i], expected[i], 1e-6 * scale) << i;
}

void ExpectNear(const Quaternion& is, const Quaternion& expected) {
  EXPECT_NEAR(is.w, expected.w, 1e-6);
  EXPECT_NEAR(is.x, expected.x, 1e-6);
  EXPECT_NEAR(is.y, expected.y, 1e-6);
  EXPECT_NEAR(is.z, expected.z, 1e-6);
}

struct Target {
  const char* preset;
  Vector position;
  Quaternion orientation;
};

constexpr Target kTargets[] = {
    {"tracker", {0.5, -0.25, 0.125}, kWorked},
    {"ros", {0.5, 0.25, -0.125}, {kWorked.w, 0.038134576, -0.189307857, -0.239298338}},
    {"unity", {-0.25, -0.125, 0.5}, {kWorked.w, -0.189307857, 0.239298338, -0.038134576}},
    {"unreal", {50, -25, -12.5}, {kWorked.w, -0.038134576, -0.189307857, 0.239298338}},
    {"opengl", {-0.25, -0.125, -0.5}, {kWorked.w, 0.189307857, -0.239298338, -0.038134576}},
    {"freed", {-250, 500, -125}, {kWorked.w, 0.189307857, 0.038134576, -0.239298338}},
    {"opentrackio", {-0.25, 0.5, -0.125}, {kWorked.w, 0.189307857, 0.038134576, -0.239298338}},
    {"adm", {-0.25, 0.5, -0.125}, {kWorked.w, 0.189307857, 0.038134576, -0.239298338}},
    {"opentrack", {25, -12.5, -50}, {kWorked.w, 0.189307857, 0.239298338, 0.038134576}},
    {"psn", {-0.25, -0.125, 0.5}, {kWorked.w, -0.189307857, 0.239298338, -0.038134576}},
    {"dtrack", {500, 250, -125}, {kWorked.w, 0.038134576, -0.189307857, -0.239298338}},
    {"dtrack-y-up", {-250, -125, -500}, {kWorked.w, 0.189307857, -0.239298338, -0.038134576}},
};

TEST(Axes, TheWorkedPoseComesOutRightForEveryTarget) {
  ASSERT_EQ(AxesPresets().size(), std::size(kTargets));
  ExpectNear(QuaternionOf(kWorkedAngles), kWorked);
  for (const Target& target : kTargets) {
    SCOPED_TRACE(target.preset);
    const AxesPreset* const preset = FindAxesPreset(target.preset);
    ASSERT_NE(preset, nullptr);
    const Axes& axes = preset->axes;
    ExpectNear(PositionIn(axes, kWorkedPosition), target.position, axes.scale);
    const Quaternion turned = OrientationIn(axes, kWorked);
    ExpectNear(turned, target.orientation);
    // The rule for matrices must agree with the one for quaternions.
    const Matrix rotation = axes.rows * MatrixOf(kWorked) * Transposed(axes.rows);
    for (std::size_t row = 0; row < 3; ++row) ExpectNear(MatrixOf(turned)[row], rotation[row]);
  }
}

TEST(Axes, AnglesComeBackFromTheMatrix) {
  for (const Angles& angles :
       {kWorkedAngles, Angles{-3, 1.2, -2}, Angles{1, std::numbers::pi / 2, 0}}) {
    const Angles back = AnglesOf(MatrixOf(QuaternionOf(angles)));
    EXPECT_NEAR(back.azimuth, angles.azimuth, 1e-6);
    EXPECT_NEAR(back.elevation, angles.elevation, 1e-6);
    EXPECT_NEAR(back.roll, angles.roll, 1e-6);
  }
}

TEST(Axes, TextIsAMatrixOrRefused) {
  EXPECT_EQ(ParseAxes("x,-z,y"), (Matrix{{{1, 0, 0}, {0, 0, -1}, {0, 1, 0}}}));
  EXPECT_EQ(ParseAxes("unity"), FindAxesPreset("unity")->axes.rows);
  EXPECT_TRUE(ParseAxes("0.6,0.8,0,-0.8,0.6,0,0,0,1").has_value());
  for (const char* const text : {"", "x,y", "x,y,y", "x,y,w", "x,y,z,", "x,,y,z", "1,0,0,0,1,0,0,0",
                                 "1,0,0,0,1,0,0,0,1.00001", "nan,0,0,0,1,0,0,0,1", "Unity"}) {
    EXPECT_FALSE(ParseAxes(text).has_value()) << text;
  }
}

// ---- What the options do to a record
// -------------------------------------------------------------

kinetrel_record Record() {
  kinetrel_record record{};
  record.sensor = 2;
  record.sample_ns = 1500;
  record.flags = kinetrel_position_valid | kinetrel_orientation_valid;
  for (std::size_t i = 0; i < 3; ++i) record.position[i] = kWorkedPosition[i];
  record.orientation[0] = static_cast<float>(kWorked.w);
  record.orientation[1] = static_cast<float>(kWorked.x);
  record.orientation[2] = static_cast<float>(kWorked.y);
  record.orientation[3] = static_cast<float>(kWorked.z);
  record.angles[0] = 0.5F;  // the device's own, unless mount or room turn them
  return record;
}

struct Selected {
  std::string complaint;
  std::vector<Pose> poses;
  std::vector<std::string> names;
};

Selected Select(const std::string& query, const kinetrel_record& record = Record(),
                std::uint32_t unit = 1) {
  OutputAddress address;
  Selected selected;
  selected.complaint = ParseOutputAddress("test?" + query, address);
  OutputOptions options(address);
  const PoseSelector selector(options, {"tracker", "sensor"});
  if (selected.complaint.empty()) selected.complaint = options.Complaint();
  SourceState state;
  state.run.clock_ns = 1000;
  state.run.utc_ns = 1700000000000000000;
  state.run.unit = unit;
  selector.Select({&record, 1}, state, selected.poses);
  for (const Pose& pose : selected.poses) selected.names.emplace_back(pose.name);
  return selected;
}

TEST(PoseSelector, MountTurnsTheBodyAndRoomTurnsAll) {
  const Pose plain = Select("").poses.at(0);
  ExpectNear(plain.position, kWorkedPosition);
  EXPECT_EQ(plain.utcNs, 1700000000000000500);
  EXPECT_EQ(plain.angles.azimuth, 0.5);

  const Pose mounted = Select("mount=90,0,0").poses.at(0);
  ExpectNear(mounted.orientation, {0.503637, 0.160826, 0.106896, 0.842056});
  ExpectNear(mounted.position, kWorkedPosition);
  EXPECT_NEAR(mounted.angles.azimuth, AnglesOf(MatrixOf(mounted.orientation)).azimuth, 1e-6);

  const Pose inRoom = Select("room=90,0,0").poses.at(0);
  ExpectNear(inRoom.orientation, {0.503637, -0.106896, 0.160826, 0.842056});
  ExpectNear(inRoom.position, {0.25, 0.5, 0.125});

  // 0.1 m along the sensor's x axis, which is the first column of its matrix.
  ExpectNear(Select("arm=0.1,0,0").poses.at(0).position,
             {0.5 + 0.0813798, -0.25 + 0.0469846, 0.125 - 0.0342020});
  ExpectNear(Select("origin=1,2,3&axes=y,-z,x&scale=10").poses.at(0).position, {17.5, -31.25, 15},
             10);
}

TEST(PoseSelector, ChoosesAndNamesSensors) {
  EXPECT_EQ(Select("").names, std::vector<std::string>{"sensor3"});
  EXPECT_EQ(Select("sensors=1,3&name=head,hand").names, std::vector<std::string>{"hand"});
  EXPECT_EQ(Select("sensors=1,3&name=head").names, std::vector<std::string>{"head3"});
  EXPECT_EQ(Select("sensors=3&name=head").names, std::vector<std::string>{"head"});
  EXPECT_EQ(Select("sensors=4,3").poses.at(0).place, 1U);
  EXPECT_EQ(Select("sensor=3&name=head").names, std::vector<std::string>{"head"});
  EXPECT_TRUE(Select("sensors=1,2").poses.empty());
  EXPECT_TRUE(Select("", Record(), 2).poses.empty()) << "a GPS receiver";
}

TEST(PoseSelector, DoesNotPassOnWhatIsNotValid) {
  kinetrel_record record = Record();
  record.orientation[1] = std::nanf("");
  EXPECT_FALSE(Select("", record).poses.at(0).hasOrientation);
  record = Record();
  record.position[1] = std::numeric_limits<double>::infinity();
  EXPECT_FALSE(Select("", record).poses.at(0).hasPosition);
  record.position[1] = 1e305;  // in units of the target it is infinite
  EXPECT_FALSE(Select("scale=1000000", record).poses.at(0).hasPosition);
  record = Record();
  record.flags = 0;
  EXPECT_FALSE(Select("", record).poses.at(0).Seen());
}

struct Wrong {
  const char* query;
  const char* complaint;  // a part of it
};

class WrongOptions : public testing::TestWithParam<Wrong> {};

TEST_P(WrongOptions, AreNamed) {
  EXPECT_NE(Select(GetParam().query).complaint.find(GetParam().complaint), std::string::npos)
      << Select(GetParam().query).complaint;
}

INSTANTIATE_TEST_SUITE_P(
    PoseSelector, WrongOptions,
    testing::Values(Wrong{"sensors=0", "from 1 to 32"}, Wrong{"sensors=1,1", "different"},
                    Wrong{"sensors=33", "from 1 to 32"}, Wrong{"sensors=", "from 1 to 32"},
                    Wrong{"sensors=1,2&name=a,b,c", "one name"}, Wrong{"name=a,b", "one name"},
                    Wrong{"axes=x,y", "option axes"}, Wrong{"scale=0", "option scale"},
                    Wrong{"scale=nan", "option scale"}, Wrong{"mount=1,2", "3 numbers"},
                    Wrong{"room=1,2,x", "3 numbers"}, Wrong{"sensrs=1", "did you mean sensors?"},
                    Wrong{"colour=red", "known are sensors, sensor, name"},
                    Wrong{"=1", "written as"}, Wrong{"name=%zz", "written as"},
                    Wrong{"name=%1B", "written as"}));

// ---- The text of an output
// -----------------------------------------------------------------------

TEST(OutputAddress, EveryPartMayBeMissing) {
  OutputAddress address;
  EXPECT_EQ(ParseOutputAddress("VRPN", address), "");
  EXPECT_EQ(address.scheme, "vrpn");
  EXPECT_EQ(address.host + address.path, "");
  EXPECT_EQ(address.port, 0);
  EXPECT_EQ(ParseOutputAddress("osc://[fe80::1]:9000/a/b%20c?name=%C3%A4&x", address), "");
  EXPECT_EQ(address.host, "fe80::1");
  EXPECT_EQ(address.port, 9000);
  EXPECT_EQ(address.path, "a/b c");
  ASSERT_EQ(address.options.size(), 2U);
  EXPECT_EQ(address.options[0].second, "\xC3\xA4");
  EXPECT_EQ(ParseOutputAddress("osc://host?a=1", address), "");
  EXPECT_EQ(address.host, "host");
  for (const char* const text :
       {"", "://", "a b", "osc:", "osc:9000", "osc://h:0", "osc://h:65536", "osc://h:x",
        "osc://[::1", "osc://[::1]9", "osc/x", "osc://h/%1"}) {
    EXPECT_NE(ParseOutputAddress(text, address), "") << text;
  }
  EXPECT_NE(ParseOutputAddress("osc?" + std::string(5000, 'a'), address), "");
}

}  // namespace
}  // namespace kinetrel::bridge

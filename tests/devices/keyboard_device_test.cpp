#include "devices/keyboard_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "platform/console.h"

namespace kinetrel {
namespace {

using Field = KeyboardDevice::Field;

constexpr unsigned kWithSteered = 0x0F;

// What `act` prints on the standard output.
template <typename Act>
std::string Printed(const Act& act) {
  testing::internal::CaptureStdout();
  act();
  return testing::internal::GetCapturedStdout();
}

Pose PoseOf(KeyboardDevice& device, int sensor) {
  Pose pose{};
  std::copy_n(device.GetSensorPose(sensor), pose.size(), pose.begin());
  return pose;
}

void ExpectNear(const Pose& got, const Pose& wanted, float tolerance = 1e-5F) {
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_NEAR(got[i], wanted[i], tolerance * std::max(1.0F, std::fabs(wanted[i]))) << i;
  }
}

// ---- Paths ---------------------------------------------------------------------------------

TEST(KeyboardPaths, FirstFrameInCentimetres) {
  struct Row {
    int sensor;
    Pose pose;
    Quaternion quaternion;
  };
  KeyboardDevice device;
  device.Boot(0);
  device.SetSensorMask(0x0013, 0);
  EXPECT_EQ(device.ReadFrame(nullptr), 0x0013U);
  for (const Row& row :
       // A quarter of a degree on: 80 cm x cos, 80 cm x sin, 20 cm x cos; yaw half a turn ahead.
       {Row{0,
            {79.999237F, 0.3490647F, 19.999809F, -3.1372293F, 0.2526778F, 0.00043633F},
            {-0.0021368F, -0.1260032F, -0.0000585F, 0.9920275F}},
        // 1 rad further on, and three times as wide.
        Row{1,
            {128.790131F, 202.516922F, 32.197533F, -2.1372293F, 0.1345621F, 1.0004363F},
            {-0.3931451F, -0.2820455F, 0.3910540F, 0.7829202F}},
        // 4 rad further on, and as wide as sensor 0.
        Row{4,
            {-52.026817F, -60.771786F, -13.006704F, 0.8627707F, -0.1633087F, -2.2827490F},
            {0.4079504F, -0.8089609F, -0.4097472F, 0.1061418F}}}) {
    ExpectNear(PoseOf(device, row.sensor), row.pose, 1e-6F);
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_NEAR(device.GetSensorQuaternion(row.sensor)[i], row.quaternion[i], 1e-6) << i;
    }
  }
}

// ---- Frames --------------------------------------------------------------------------------

TEST(KeyboardFrames, TakeSixteenMillisecondsAndReportTheEndTime) {
  KeyboardDevice device;
  device.Boot(0);
  const double before = device.ElapsedSeconds();
  double when = 0.0;
  device.ReadFrame(&when);
  EXPECT_GE(when, before + 0.016);
  EXPECT_LE(when, device.ElapsedSeconds());
}

TEST(KeyboardFrames, LeaveKeysAloneWithoutTheSteeredSensor) {
  KeyboardDevice device;
  device.Boot(0);
  PushBackKey({'z', false});
  EXPECT_EQ(device.ReadFrame(nullptr), 1U);
  EXPECT_EQ(TakeKey(), (Key{'z', false}));
}

TEST(KeyboardFrames, ReportTheSteeredSensorWhenAKeyWasActedUpon) {
  KeyboardDevice device;
  device.Boot(0);
  device.SetSensorMask(kWithSteered, 0);
  EXPECT_EQ(Printed([&] { EXPECT_EQ(device.ReadFrame(nullptr), 0x07U); }), "");
  PushBackKey({static_cast<int>(ExtendedKey::Up), true});
  Printed([&] { EXPECT_EQ(device.ReadFrame(nullptr), 0x0FU); });
  PushBackKey({'q', false});
  Printed([&] { EXPECT_EQ(device.ReadFrame(nullptr), 0x07U); });
  EXPECT_EQ(device.ReadFrame(nullptr), 0x07U);
}

// ---- Identity and masks --------------------------------------------------------------------

TEST(KeyboardDevice, MasksFollowTheSensorCountAndMarkTheSteeredSensor) {
  struct Row {
    unsigned mask;
    int count;
    unsigned sensors;
    unsigned components;
  };
  KeyboardDevice device;
  for (const Row& row :
       {Row{0xFFFFFFFF, 0, 0xFFFFFFFF, 0x8003}, Row{0xFFFF, 4, 0x0F, 0x8003},
        Row{0xFFFF, 3, 0x07, 0x0003}, Row{0xFFFF, 40, 0xFFFF, 0x8003}, Row{0x18, 32, 0x18, 0x8003},
        Row{0xFF, -1, 0xFF, 0x8003}, Row{0, 0, 0, 0x0003}}) {
    EXPECT_EQ(device.SetSensorMask(row.mask, row.count), row.sensors);
    EXPECT_EQ(device.GetComponentMask(), row.components);
  }
  EXPECT_EQ(device.SetComponentMask(0x8007), 7U);
}

// ---- Keys ----------------------------------------------------------------------------------

std::vector<Key> Typed(const std::string& text) {
  std::vector<Key> keys;
  for (const char letter : text) keys.push_back({static_cast<unsigned char>(letter), false});
  return keys;
}

std::vector<Key> Pressed(std::initializer_list<ExtendedKey> codes) {
  std::vector<Key> keys;
  for (const ExtendedKey code : codes) keys.push_back({static_cast<int>(code), true});
  return keys;
}

// True if the device acted upon the last key.
bool Feed(KeyboardDevice& device, const std::vector<Key>& keys) {
  bool acted = false;
  for (const Key& key : keys) {
    PushBackKey(key);
    acted = device.HandleKeys();
  }
  return acted;
}

// The editor's lines for a text that grows: a new field, then each text in turn.
std::string Prompts(const std::string& field, const std::vector<std::string>& texts) {
  std::string lines = "\n";
  for (const std::string& text : texts) lines += "\rEnter value for " + field + ": " + text + " \b";
  return lines;
}

struct Story {
  const char* name;
  std::vector<Key> keys;
  std::string printed;
  Pose pose;  // afterwards, from a pose of zeros
  bool acted = true;
};

Story Told(const char* name, std::vector<Key> keys, std::string printed, Pose pose,
           bool acted = true) {
  return {name, std::move(keys), std::move(printed), pose, acted};
}

class KeyboardStory : public testing::TestWithParam<Story> {};

TEST_P(KeyboardStory, PrintsAndMoves) {
  KeyboardDevice device;
  bool acted = false;
  EXPECT_EQ(Printed([&] { acted = Feed(device, GetParam().keys); }), GetParam().printed);
  EXPECT_EQ(acted, GetParam().acted);
  ExpectNear(PoseOf(device, KeyboardDevice::kSteeredSensor), GetParam().pose);
  EXPECT_EQ(TakeKey(), std::nullopt);
}

std::string Name(const testing::TestParamInfo<Story>& row) { return row.param.name; }

constexpr float kRightAngle = 1.5707963F;

INSTANTIATE_TEST_SUITE_P(
    Steering, KeyboardStory,
    testing::Values(
        Told("ThreeTimesUp", Pressed({ExtendedKey::Up, ExtendedKey::Up, ExtendedKey::Up}),
             "\r(  1.000,  0.000,  0.000;   0.0,   0.0,   0.0) [1.00, 5.7,0.10]"
             "\r(  2.000,  0.000,  0.000;   0.0,   0.0,   0.0) [1.00, 5.7,0.10]"
             "\r(  3.000,  0.000,  0.000;   0.0,   0.0,   0.0) [1.00, 5.7,0.10]",
             {3.0F}),
        Told("LargerStepsByALargerFactor", Typed("+\t="),
             "\r(  0.000,  0.000,  0.000;   0.0,   0.0,   0.0) [1.10, 5.7,0.10]"
             "\r(  0.000,  0.000,  0.000;   0.0,   0.0,   0.0) [1.10, 5.7,0.15]"
             "\r(  0.000,  0.000,  0.000;   0.0,   0.0,   0.0) [1.26, 5.7,0.15]",
             {}),
        Told("UnknownKeys", Typed("q\x01"), "\nKey(q) = 113\nKey(\x01) = 1", {}, false),
        Told("UnknownExtendedKey", Pressed({ExtendedKey::Home}), "\nKey = 0x47", {}, false)),
    Name);

INSTANTIATE_TEST_SUITE_P(
    Editing, KeyboardStory,
    testing::Values(
        Told("Number", Typed("x12.5\r"),
             Prompts("X", {"", "1", "12", "12.", "12.5"}) + "\rNew value for X = 12.500000\n",
             {12.5F}),
        Told("AngleInDegrees", Typed("E-90\n"),
             Prompts("PITCH", {"", "-", "-9", "-90"}) + "\rNew value for PITCH = -90.000000\n",
             {0.0F, 0.0F, 0.0F, 0.0F, -kRightAngle}),
        Told("Corrected", Typed("\x79\b4\b5\r"),
             Prompts("Y", {"", "", "4", "", "5"}) + "\rNew value for Y = 5.000000\n", {0.0F, 5.0F}),
        Told("Nothing", Typed("a\r"),
             Prompts("YAW", {""}) + "\rNo value stored" + std::string(45, ' ') + "\r", {}),
        Told("SeparatorsAreForVectorsOnly", Typed("z,1;\r"),
             Prompts("Z", {"", "", "1", "1"}) + "\rNew value for Z = 1.000000\n",
             {0.0F, 0.0F, 1.0F}),
        Told("UnknownKeyIsIgnored", Typed("x1q"), Prompts("X", {"", "1"}), {}, false),
        Told("SameFieldAgainGoesOn", Typed("x1x2\r"),
             Prompts("X", {"", "1", "1", "12"}) + "\rNew value for X = 12.000000\n", {12.0F}),
        Told("SameFieldAfterEnterBeginsAnew", Typed("x1\rx\r"),
             Prompts("X", {"", "1"}) + "\rNew value for X = 1.000000\n" + Prompts("X", {""}) +
                 "\rNo value stored" + std::string(45, ' ') + "\r",
             {1.0F}),
        Told("EnterWithoutEditor", Typed("\r"), "\nKey(\r) = 13", {}, false)),
    Name);

TEST(KeyboardEditor, WholePose) {
  struct Row {
    const char* typed;
    std::string end;  // of what is printed
    Pose pose;        // afterwards, from that of the row before
  };
  KeyboardDevice device;
  for (const Row& row :
       {Row{"v1,2,3;90,0,0\r",
            "\rNew vector = (1.000000,2.000000,3.000000;90.000000,0.000000,"
            "0.000000)\n",
            {1.0F, 2.0F, 3.0F, kRightAngle}},
        Row{"v4\r",
            "\rNew vector = (4.000000,2.000000,3.000000;90.000000,0.000000,"
            "0.000000)\n",
            {4.0F, 2.0F, 3.0F, kRightAngle}},
        Row{"v7,8,9;180,-90\r",
            "9.000000;180.000000,-90.000000,0.000000)\n",
            {7.0F, 8.0F, 9.0F, 2 * kRightAngle, -kRightAngle}},
        Row{"v,,;\r", "Vector: ,,; \b", {7.0F, 8.0F, 9.0F, 2 * kRightAngle, -kRightAngle}}}) {
    const std::string all = Printed([&] { Feed(device, Typed(row.typed)); });
    EXPECT_TRUE(all.ends_with(row.end)) << all;
    ExpectNear(PoseOf(device, 3), row.pose);
  }
}

TEST(KeyboardEditor, KeepsThirtyOneCharacters) {
  KeyboardDevice device;
  const std::string all = Printed([&] { Feed(device, Typed("x" + std::string(40, '9'))); });
  EXPECT_TRUE(all.ends_with(": " + std::string(31, '9') + " \b")) << all;
}

TEST(KeyboardKeys, EveryMoveAndItsOpposite) {
  struct Row {
    ExtendedKey more;
    ExtendedKey less;
    std::size_t component;
    float step;
  };
  for (const Row& row : {Row{ExtendedKey::Up, ExtendedKey::Down, 0, 1.0F},
                         Row{ExtendedKey::Left, ExtendedKey::Right, 1, 1.0F},
                         Row{ExtendedKey::PageUp, ExtendedKey::PageDown, 2, 1.0F},
                         Row{ExtendedKey::CtrlLeft, ExtendedKey::CtrlRight, 3, 0.1F},
                         Row{ExtendedKey::CtrlUp, ExtendedKey::CtrlDown, 4, 0.1F},
                         Row{ExtendedKey::CtrlPageUp, ExtendedKey::CtrlPageDown, 5, 0.1F}}) {
    KeyboardDevice device;
    Pose wanted{};
    wanted[row.component] = row.step;
    Printed([&] { EXPECT_TRUE(Feed(device, Pressed({row.more}))); });
    ExpectNear(PoseOf(device, 3), wanted);
    wanted[row.component] = -row.step;
    Printed([&] { EXPECT_TRUE(Feed(device, Pressed({row.less, row.less}))); });
    ExpectNear(PoseOf(device, 3), wanted);
  }
}

// The last applied offset is one per process, so each device here starts where the previous one
// left it. The last device leaves it at zero for the other tests.
TEST(KeyboardKeys, TheFirstReadAppliesTheOffset) {
  const float offset[6] = {1.0F, 2.0F, 3.0F, 0.5F, 0.0F, 0.0F};
  const float later[6] = {50.0F, 50.0F, 50.0F, 0.0F, 0.0F, 0.0F};
  KeyboardDevice first;
  first.SetSensorOffset(-1, offset);
  EXPECT_FALSE(first.HandleKeys());
  ExpectNear(PoseOf(first, 3), {1.0F, 2.0F, 3.0F});
  first.SetSensorOffset(-1, later);
  EXPECT_FALSE(first.HandleKeys());
  ExpectNear(PoseOf(first, 3), {1.0F, 2.0F, 3.0F});

  KeyboardDevice second;
  second.SetSensorOffset(-1, offset);
  EXPECT_FALSE(second.HandleKeys());
  ExpectNear(PoseOf(second, 3), {});

  KeyboardDevice third;
  EXPECT_FALSE(third.HandleKeys());
  ExpectNear(PoseOf(third, 3), {-1.0F, -2.0F, -3.0F});
}

TEST(KeyboardKeys, NoInputMakesANanPose) {
  KeyboardDevice device;
  Printed([&] {
    for (const char* step : {"+", "[", "-", "]"}) {
      for (int i = 0; i < 3000; ++i) Feed(device, Typed(step));
      for (int i = 0; i < 3; ++i) {
        Feed(device, Pressed({ExtendedKey::Up, ExtendedKey::CtrlUp, ExtendedKey::CtrlTab}));
      }
    }
    Feed(device, Typed("v99999999999999999999999999999999\r"));
  });
  for (const float value : PoseOf(device, 3)) EXPECT_TRUE(std::isfinite(value));
}

}  // namespace
}  // namespace kinetrel

// The Logitech head-tracker driver against a scripted unit. Every byte of the protocol is written
// out here.
#include "drivers/logitech_device.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/allocation_counter.h"
#include "tests/support/scripted_peer.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;
using std::chrono::milliseconds;

const std::string kSelfTest = "*\x05";
const std::string kPassed = "\xBF\x3F";
const Script kBoot = Expect(kSelfTest) + Send(kPassed) + Expect("*D*A");

// y = 1, x = `x` counts, all else zero.
std::string Record(int x, char header = '\x80') {
  std::string record(16, '\0');
  record[0] = header;
  record[3] = 1;
  record[5] = static_cast<char>(x >> 7 & 0x7F);
  record[6] = static_cast<char>(x & 0x7F);
  return record;
}

// Bytes 10 to 15 of a record.
std::string Angles(int pitch, int roll, int yaw) {
  std::string bytes;
  for (const int value : {pitch, roll, yaw}) {
    bytes += static_cast<char>(value >> 7 & 0x7F);
    bytes += static_cast<char>(value & 0x7F);
  }
  return bytes;
}

class LogitechOnALine : public DeviceOnALine<LogitechDevice> {
 protected:
  // Sensor 0 after a record that comes at once.
  Pose PoseOf(const std::string& record) {
    line_.Send(record);
    EXPECT_EQ(AllocationsOf([&] { EXPECT_EQ(device_.ReadFrame(nullptr), 1U); }), 0);
    Pose pose;
    std::copy_n(device_.GetSensorPose(0), 6, pose.begin());
    return pose;
  }
};

// ---- Decoding ------------------------------------------------------------------------------

TEST(LogitechMountings, TurnThePose) {
  const Pose pose{1, 2, 3, static_cast<float>(kPi / 2), 0.25F, 0.5F};
  const float quarter = static_cast<float>(kPi / 2);
  const Pose expected[] = {
      {1, 2, 3, quarter, -0.5F, 0.25F},     {3, -2, 1, 0.5F, -0.25F, quarter},
      {2, -1, 3, 0, -0.5F, 0.25F},          {1, -2, -3, -quarter, 0.5F, 0.25F},
      {-2, -1, -3, -quarter, -0.25F, 0.5F},
  };
  for (int mode = 0; mode < 5; ++mode) {
    const Pose turned = ApplyLogitechMounting(mode, pose);
    for (std::size_t i = 0; i < 6; ++i) {
      EXPECT_NEAR(turned[i], expected[mode][i], 1e-6) << "mounting " << mode << ", " << i;
    }
  }
  EXPECT_EQ(ApplyLogitechMounting(5, pose), pose);
  EXPECT_EQ(ApplyLogitechMounting(-1, pose), pose);
}

TEST(LogitechMountings, AreChosenByTheirAxes) {
  struct Row {
    float x[3];
    float y[3];
    int mounting;  // -1: none
  };
  const float nan = std::nanf("");
  const Row rows[] = {
      {{1, 0, 0}, {0, 1, 0}, 0},          {{0, 0, 1}, {0, 1, 0}, 1},
      {{0, 1, 0}, {-1, 0, 0}, 2},         {{1, 0, 0}, {0, -1, 0}, 3},
      {{0, -1, 0}, {-1, 0, 0}, 4},        {{0, -1, 0}, {0, -1, 0}, -1},
      {{5, 0.04F, 0}, {-0.05F, 9, 0}, 0}, {{5, 0.06F, 0}, {0, 9, 0}, -1},
      {{0.7F, 0.7F, 0}, {0, 1, 0}, -1},   {{0, 1, 0}, {1, 0, 0}, -1},
      {{nan, 0, 0}, {0, 1, 0}, -1},       {{0, 0, 0}, {0, 1, 0}, 0},
  };
  for (const Row& row : rows) {
    const auto found = LogitechMountingOf(row.x, row.y);
    EXPECT_EQ(found ? static_cast<int>(*found) : -1, row.mounting) << row.x[0] << " " << row.x[1];
  }
}

// ---- Boot ----------------------------------------------------------------------------------

class LogitechBoot : public LogitechOnALine, public testing::WithParamInterface<BootStory> {};

TEST_P(LogitechBoot, Ends) { EXPECT_EQ(Boot(GetParam().script), GetParam().result); }

INSTANTIATE_TEST_SUITE_P(
    Line, LogitechBoot,
    testing::Values(BootStory{"Plain", kBoot, kBooted},
                    BootStory{"InTwoPieces",
                              Expect(kSelfTest) + Send("\xBF") + Wait(milliseconds(200)) +
                                  Send("\x3F") + Expect("*D*A"),
                              kBooted},
                    BootStory{"AFailedTest", Expect(kSelfTest) + Send("\xBD\x3F"), 0},
                    BootStory{"HalfAnAnswer", Expect(kSelfTest) + Send("\xBF"), 0},
                    BootStory{"NoAnswer", {}, 0},
                    BootStory{"ThePlugIsPulled", Expect(kSelfTest) + HangUp(), 0},
                    BootStory{"StillStreaming",
                              Send(Record(1)) + Expect(kSelfTest) + Send(kPassed + Record(2)) +
                                  Expect("*D") + kBoot,
                              kBooted},
                    BootStory{
                        "HalfARecordPending",
                        Send("\x01\x02") + Expect(kSelfTest) + Send(kPassed) + Expect("*D") + kBoot,
                        kBooted}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(LogitechOnALine, ASecondBootKeepsTheMountingAndDropsTheInput) {
  ASSERT_EQ(Boot(kBoot), kBooted);
  device_.SetProtocol(2);
  device_.SetSensorOffsetComponent(0, 0, 2.5);
  line_.Send(Record(5).substr(0, 9));
  EXPECT_EQ(device_.ReadFrame(nullptr), 0U);
  ASSERT_EQ(Boot(kBoot), kBooted);
  EXPECT_EQ(device_.GetProtocol(), 2);
  EXPECT_FLOAT_EQ(PoseOf(Record(0))[1], -2.5F);
}

// ---- Status --------------------------------------------------------------------------------

struct StatusStory {
  const char* name;
  std::string answer;
  int size;
  int verdict;
  std::string text;
};

class LogitechStatus : public LogitechOnALine, public testing::WithParamInterface<StatusStory> {};

TEST_P(LogitechStatus, IsTheSelfTest) {
  const StatusStory& row = GetParam();
  ASSERT_EQ(Boot(kBoot), kBooted);
  ScriptedPeer peer(
      line_, Expect("*m") + Send(std::string(30, '\x55')) + Expect(kSelfTest) + Send(row.answer));
  char text[128] = "untouched";
  EXPECT_EQ(device_.QueryStatus(text, row.size), row.verdict);
  EXPECT_EQ(text, row.text);
  EXPECT_EQ(peer.Verdict(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Line, LogitechStatus,
    testing::Values(
        StatusStory{"Passed", kPassed, 128, 1,
                    "SELF(*),MPU(*),EPROM(*),RAM(*),TFRAME(*),MOUSE(*),PORT(*),EEPROM(*),"
                    "TBDEFD(*)"},
        StatusStory{"NothingWorks", "\0\0"s, 128, 0,
                    "SELF(0),MPU(0),EPROM(0),RAM(0),TFRAME(0),MOUSE(0),PORT(0),EEPROM(0),"
                    "TBDEFD(0)"},
        StatusStory{"SomeDo", "\x22\x12"s, 128, 0,
                    "SELF(0),MPU(*),EPROM(0),RAM(0),TFRAME(0),MOUSE(*),PORT(0),EEPROM(*),"
                    "TBDEFD(*)"},
        StatusStory{"NoRoom", kPassed, 8, 1, "SELF(*)"},
        StatusStory{"NoAnswer", "", 128, 0, "untouched"}),
    [](const auto& row) { return std::string(row.param.name); });

// A record is on its way: it must not be read as the answer, and the next frame polls again.
TEST_F(LogitechOnALine, StatusBetweenARequestAndItsRecord) {
  ASSERT_EQ(Boot(kBoot), kBooted);
  ScriptedPeer peer(line_, Expect("*d") + Send(Record(1)) + Expect("*m") +
                               Send(std::string(30, 'i')) + Expect(kSelfTest) + Send(kPassed) +
                               Expect("*d") + Send(Record(2)));
  device_.Poll();
  EXPECT_EQ(device_.QueryStatus(nullptr, 0), 1);
  EXPECT_EQ(device_.ReadFrame(nullptr), 1U);
  EXPECT_FLOAT_EQ(device_.GetSensorPose(0)[0], 2 * 0.00254F);
  EXPECT_EQ(peer.Verdict(), "");
}

// ---- Frames --------------------------------------------------------------------------------

class LogitechFrames : public LogitechOnALine, public testing::WithParamInterface<FrameStory> {};

TEST_P(LogitechFrames, AreRead) {
  ASSERT_EQ(Boot(kBoot), kBooted);
  ExpectFrames(GetParam(), [this](std::vector<long>& frames) {
    device_.Poll();
    if (device_.ReadFrame(nullptr) == 0) return;
    frames.push_back(std::lround(device_.GetSensorPose(0)[0] / 0.00254));
  });
}

const Script kAsked = Expect("*d");
const std::string kOne = Record(1);

INSTANTIATE_TEST_SUITE_P(
    Line, LogitechFrames,
    testing::Values(
        FrameStory{"Clean", kAsked + Send(kOne), {1}},
        FrameStory{"OneAfterTheOther", kAsked + Send(kOne) + kAsked + Send(Record(300)), {1, 300}},
        FrameStory{"InTwoPieces",
                   kAsked + Send(kOne.substr(0, 5)) + Wait(milliseconds(5)) + Send(kOne.substr(5)),
                   {1}},
        FrameStory{"NoiseBefore", kAsked + Send("\x11\x22" + kOne), {1}},
        FrameStory{"NoiseThatLooksLikeAStart", kAsked + Send("\xFF\xC3" + kOne), {1}},
        FrameStory{
            "MoreNoiseThanARecord", kAsked + Send(std::string(20, 'n')) + kAsked + Send(kOne), {1}},
        FrameStory{"CutThenTheNext", kAsked + Send(kOne.substr(0, 9) + Record(2)), {2}},
        FrameStory{"NotValid", kAsked + Send(Record(7, '\xA0')) + kAsked + Send(kOne), {1}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(LogitechOnALine, AnAnswerThatComesTooLateIsDropped) {
  ASSERT_EQ(Boot(kBoot), kBooted);
  ExpectALateAnswerIsDropped(kOne, Expect("*d*d") + Send(Record(2)));
  EXPECT_FLOAT_EQ(device_.GetSensorPose(0)[0], 2 * 0.00254F);
}

TEST_F(LogitechOnALine, AFailedFrameLeavesThePose) {
  ASSERT_EQ(Boot(kBoot), kBooted);
  PoseOf(Record(1, '\x85'));
  EXPECT_EQ(device_.OwnButtons().bits, 5U);
  EXPECT_EQ(device_.OwnButtons().known, 0x7FU);
  line_.Send(Record(9, '\xA3'));
  EXPECT_EQ(device_.ReadFrame(nullptr), 0U);
  EXPECT_EQ(device_.InputQueueLength(), 0U);
  EXPECT_EQ(device_.OwnButtons().bits, 0x23U);
  EXPECT_FLOAT_EQ(device_.GetSensorPose(0)[0], 0.00254F);
}

TEST_F(LogitechOnALine, AnglesAreWrapped) {
  struct Row {
    int counts;
    float angle;
  };
  const Row rows[] = {
      {0, 0},     {3600, 1.5707964F}, {7199, 3.1411564F}, {7200, -3.1415927F}, {10800, -1.5707965F},
      {14400, 0}, {16383, 0.8652468F}};
  for (const Row& row : rows) {
    ASSERT_EQ(Boot(kBoot), kBooted);  // the first poses after it may be anywhere
    const std::string head = "\x80"s + std::string(9, '\0');
    EXPECT_NEAR(PoseOf(head + Angles(row.counts, 0, 0))[4], row.angle, 3e-7) << row.counts;
    EXPECT_NEAR(PoseOf(head + Angles(0, row.counts, 0))[5], row.angle, 3e-7) << row.counts;
    if (row.counts == 7200) continue;  // from below, half a turn is wrapped to the other end
    EXPECT_NEAR(PoseOf(head + Angles(0, 0, row.counts))[3], -row.angle, 3e-7) << row.counts;
  }
}

TEST_F(LogitechOnALine, AFrameScalesEveryValue) {
  ASSERT_EQ(Boot(kBoot), kBooted);
  const float offset[6] = {1, 2, 3, 0, 0, 0};
  EXPECT_TRUE(device_.SetSensorOffset(-1, offset));
  const std::string record =
      "\x80\x00\x07\x68\x7F\x70\x30\x00\x0F\x50"s + Angles(3600, 0, 3600);  // y 1000 x -2000 z 2000
  struct UnitRow {
    int units;
    float f;
  };
  for (const UnitRow& row : {UnitRow{0, 0.001F}, {1, 0.00254F}, {3, 2.54e-05F}, {2, 0.001F}}) {
    EXPECT_EQ(device_.SetUnits(row.units), 1);
    EXPECT_EQ(device_.GetUnits(), row.units);
    const Pose pose = PoseOf(record);
    EXPECT_FLOAT_EQ(pose[0], 1 - 2000 * row.f);
    EXPECT_FLOAT_EQ(pose[1], 2 + 1000 * row.f);
    EXPECT_FLOAT_EQ(pose[2], 3 - 2000 * row.f);
    EXPECT_FLOAT_EQ(pose[3], -1.5707964F);
    EXPECT_NEAR(pose[4], 0, 1e-6);
    EXPECT_FLOAT_EQ(pose[5], -1.5707964F);
  }
  const Quaternion expected = EulerToQuaternion(device_.GetSensorEuler(0));
  for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(device_.GetSensorQuaternion(0)[i], expected[i]);
}

// ---- Settings ------------------------------------------------------------------------------

TEST_F(LogitechOnALine, OffsetsFollowTheMounting) {
  ASSERT_EQ(Boot(kBoot), kBooted);
  const float x[3] = {0, 0, 1};
  const float y[3] = {0, 1, 0};
  const float offset[6] = {1, 2, 3, 0.1F, 0.2F, 0.3F};
  const float tilted[3] = {0.7F, 0.7F, 0};
  for (const bool offsetFirst : {true, false}) {
    device_.SetProtocol(0);
    if (offsetFirst) device_.SetSensorOffset(-1, offset);
    EXPECT_EQ(device_.SetAlignment(-1, x, y), 1);
    if (!offsetFirst) device_.SetSensorOffset(0, offset);
    EXPECT_EQ(device_.GetProtocol(), 1);
    const Pose pose = PoseOf("\x80"s + std::string(15, '\0'));
    for (std::size_t i = 0; i < 6; ++i) EXPECT_NEAR(pose[i], offset[i], 1e-6) << i;
  }
  EXPECT_EQ(device_.SetAlignment(0, tilted, y), 0);
  EXPECT_EQ(device_.SetAlignment(1, x, y), 0);
  EXPECT_EQ(device_.GetProtocol(), 1);
}

}  // namespace
}  // namespace kinetrel::test

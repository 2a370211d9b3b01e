// The Flock of Birds driver against a scripted bird. Every byte of the protocol is written out
// here.
#include "drivers/flock_device.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/allocation_counter.h"
#include "tests/support/scripted_peer.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;
using std::chrono::milliseconds;

// ---- The bird's side -----------------------------------------------------------------------

const std::string kFlockStatus = "\xE0\xA0"s + std::string(12, '\0');

Script Parameters() {
  return Answer("O\x00"s, "\x00\xD0"s) + Answer("O\x01", "\x03\x43") + Answer("O$", kFlockStatus) +
         Answer("O2", "\x03\x0E\x00\x00\x81"s) + Answer("O#", "\x01") +
         Answer("O\x0F", "6DFOB\x1B    ") + Answer("O\x02", "\x28\x00"s) +
         Answer("O\x06", "\x10\x27") + Answer("O\x07", "\x80\x67") + Answer("O\x0A", "\x00"s);
}

Script Configuration() {
  return Answer("O2", "\x01\x00\x00\x00\x00"s) + Expect("P2\x03") +
         Answer("O2", "\x03\x00\x00\x00\x80"s);
}

Script BootDialogue() { return Answer("O\x00"s, "\x00\x90"s) + Configuration() + Parameters(); }

// x is `word` of 8192 parts of the full scale, all else is zero.
std::string Record(int word) {
  std::string record(12, '\0');
  record[0] = static_cast<char>(0x80 | (word & 0x7F));
  record[1] = static_cast<char>(word >> 7 & 0x7F);
  return record;
}

class FlockOnALine : public DeviceOnALine<FlockDevice> {
 protected:
  void SetUp() override { ASSERT_EQ(device_.OpenPort(line_.path().c_str(), 9600), 1); }

  BootResult Boot(const Script& script) {
    testing::internal::CaptureStdout();
    const BootResult result = DeviceOnALine::Boot(script);
    console_ = testing::internal::GetCapturedStdout();
    return result;
  }

  // The x of every frame in parts of the full scale, until the line stays silent.
  std::vector<long> ReadAll() {
    std::vector<long> words;
    while (device_.ReadFrame(nullptr) != 0 || device_.InputQueueLength() > 0) {
      words.push_back(std::lround(device_.GetSensorPose(0)[0] / 365.76 * 8192));
    }
    return words;
  }

  std::string console_;
};

// ---- Boot ----------------------------------------------------------------------------------

TEST_F(FlockOnALine, BootsAndPrintsTheParameters) {
  ASSERT_EQ(Boot(BootDialogue()), kBooted);
  const std::string noBits = "\t0\t0\t0\t0\t0\t0\t0\t0\n";
  const std::string bit7 = "\t0\t0\t0\t0\t0\t0\t0\t1\n";
  std::string expected = "\nAUTO configuration: 1\n\t1\t0\t0\t0\t0\t0\t0\t0\n";
  for (int i = 0; i < 4; ++i) expected += noBits;
  expected += "\nautoconfig request successful.\n\nAUTO configuration: 3\n";
  expected += "\t1\t1\t0\t0\t0\t0\t0\t0\n" + noBits + noBits + noBits + bit7;
  expected +=
      "\n\n****** CALLING STATUS.. **********\n"
      "\nsystem status: D000\nversion is: 3.670000\ncrys speed is: 40000000.000000"
      "\nmeasurement count: 3333\nsample rate: 103.500000\nerror code: 0"
      "\nsystem model ID: 6DFOB?    \nmaster groupmode: 1\nflock system status: E0\n"
      "\t0\t0\t0\t0\t0\t1\t1\t1\n\t0\t0\t0\t0\t0\t1\t0\t1\n";
  for (int i = 0; i < 12; ++i) expected += noBits;
  expected += "\nFBB configuration: 3\n\t1\t1\t0\t0\t0\t0\t0\t0\n\t0\t1\t1\t1\t0\t0\t0\t0\n" +
              noBits + noBits + "\t1\t0\t0\t0\t0\t0\t0\t1\n";
  EXPECT_EQ(console_, expected);
  EXPECT_EQ(device_.parameters().modelId, std::to_array("6DFOB\x1B    "));

  EXPECT_EQ(device_.GetStatusCode(), 3);
  EXPECT_EQ(device_.GetSensorCount(), 5);
  EXPECT_EQ(device_.readTimeouts().constant, 35U);
  EXPECT_EQ(device_.readTimeouts().multiplier, 18U);
  EXPECT_EQ(device_.readTimeouts().interval, 16U);
}

class FlockBoot : public FlockOnALine, public testing::WithParamInterface<BootStory> {};

TEST_P(FlockBoot, Ends) { EXPECT_EQ(Boot(GetParam().script), GetParam().result); }

const Script kRest = Configuration() + Parameters();
const Script kAsksAgain = Answer("O\x00"s, "\x00\x90"s) + kRest;

INSTANTIATE_TEST_SUITE_P(
    Line, FlockBoot,
    testing::Values(
        BootStory{"TheFirstQuestionsGetNoAnswer",
                  Expect("O\x00"s) + Expect("O\x00"s) + Send("\x07") + kAsksAgain, kBooted},
        BootStory{"TheBirdStillStreams",
                  Answer("O\x00"s, Record(1) + Record(2)) + Answer("B", Record(3)) + kAsksAgain,
                  kBooted},
        BootStory{"AnErrorThatCannotBeRead", Answer("O\x00"s, "\x00\x20"s) + Expect("O\x0A"),
                  kPortNotOpen},
        BootStory{"NoStatus", Answer("O\x00"s, "\x00\x00"s), kPortNotOpen},
        BootStory{"NoAnswer", {}, kPortNotOpen},
        BootStory{"ThePlugIsPulledAtOnce", Expect("O\x00"s) + HangUp(), kPortNotOpen},
        BootStory{"ThePlugIsPulledLater",
                  Answer("O\x00"s, "\x00\x90"s) + Configuration() + Expect("O\x00"s) + HangUp(),
                  kPortNotOpen}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(FlockOnALine, AnErrorOfTheBirdIsPrinted) {
  EXPECT_EQ(Boot(Answer("O\x00"s, "\x00\xB0"s) + Answer("O\x0A", "\x0D") + kRest), kBooted);
  EXPECT_NE(console_.find("\nBird error: 0x0D\nAUTO"), std::string::npos) << console_;
}

// A number needs all its bytes. A row of bits shows the bytes that came.
TEST_F(FlockOnALine, AnswersThatAreCutCountInPart) {
  ASSERT_EQ(Boot(Answer("O\x00"s, "\x00\x90"s) + Answer("O2", "\x01") + Expect("P2\x03") +
                 Answer("O2", "\x03\x05") + Answer("O\x00"s, "\x11") + Expect("O\x01") +
                 Answer("O$", "\xE0\xE1") + Expect("O2") + Expect("O#") + Answer("O\x0F", "6D") +
                 Expect("O\x02") + Answer("O\x06", "\x10\x27") + Expect("O\x07") + Expect("O\x0A")),
            kBooted);
  const FlockParameters& p = device_.parameters();
  EXPECT_EQ(p.autoConfig, (std::array<std::uint8_t, 5>{3, 5}));
  EXPECT_EQ(p.systemStatus, 0);
  EXPECT_EQ(p.flockStatus, (std::array<std::uint8_t, 14>{0xE0, 0xE1}));
  EXPECT_STREQ(p.modelId.data(), "6D");
  EXPECT_EQ(p.measurementRate, 0U);
}

TEST_F(FlockOnALine, ASecondBootStartsOver) {
  ASSERT_EQ(Boot(BootDialogue()), kBooted);
  device_.StartContinuous();
  line_.Send(Record(1) + Record(2).substr(0, 5));
  EXPECT_EQ(ReadAll(), std::vector<long>{1});
  device_.SetSensorOffsetComponent(0, 0, 5.0);
  device_.ClosePort();

  PseudoTerminal other;
  ASSERT_EQ(device_.OpenPort(other.path().c_str(), 115200), 1);
  ScriptedPeer peer(other, BootDialogue() + Send(Record(7)));
  testing::internal::CaptureStdout();
  EXPECT_EQ(device_.Boot(0), kBooted);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(peer.Verdict(), "");
  EXPECT_EQ(device_.GetSensorOffset(0)[0], 0.0F);
  EXPECT_EQ(ReadAll(), std::vector<long>{7});
}

// ---- Frames --------------------------------------------------------------------------------

class FlockFrames : public FlockOnALine, public testing::WithParamInterface<FrameStory> {};

TEST_P(FlockFrames, AreRead) {
  ASSERT_EQ(Boot(BootDialogue()), kBooted);
  ExpectFrames(GetParam(), [this](std::vector<long>& frames) {
    const std::vector<long> more = ReadAll();
    frames.insert(frames.end(), more.begin(), more.end());
  });
  EXPECT_EQ(ReadAll(), std::vector<long>{});
}

std::string Marked(std::string record, std::size_t at) {
  record[at] = static_cast<char>(record[at] | 0x80);
  return record;
}

const std::string kOne = Record(1);
const std::string kTwo = Record(2);
const std::string kThree = Record(3);

INSTANTIATE_TEST_SUITE_P(
    Line, FlockFrames,
    testing::Values(FrameStory{"CleanRecord", Send(kOne), {1}},
                    FrameStory{"WithoutMarks", Send(std::string(12, '\x7F')), {-1}},
                    FrameStory{"WithALongPause",
                               Send(kOne.substr(0, 5)) + Wait(milliseconds(100)) +
                                   Send(kOne.substr(5) + kTwo),
                               {1, 2}},
                    FrameStory{"NoiseBefore", Send("\x11\x22" + kOne), {1}},
                    FrameStory{"NoiseThatLooksLikeAStart", Send("\xFF\xC3" + kOne), {1}},
                    FrameStory{"CutBeforeTheNext", Send(kOne.substr(0, 7) + kTwo + kThree), {2, 3}},
                    FrameStory{"WithoutItsFirstByte", Send(kOne.substr(1) + kTwo + kThree), {2, 3}},
                    FrameStory{"WronglyMarked", Send(Marked(kOne, 6) + kTwo + kThree), {2, 3}},
                    FrameStory{"UnmarkedTailThenSilence",
                               Send(kOne.substr(6)) + Wait(milliseconds(100)) + Send(kTwo),
                               {2}},
                    FrameStory{"Silence", {}, {}},
                    FrameStory{"PlugPulled", Send(kOne) + Wait(milliseconds(50)) + HangUp(), {1}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(FlockOnALine, AFrameScalesEveryWordIntoOurFrame) {
  ASSERT_EQ(Boot(BootDialogue()), kBooted);
  const float offset[6] = {1, 2, 3, 9, 9, 9};
  device_.SetSensorOffset(-1, offset);
  struct UnitRow {
    int units;
    double range;
  };
  for (const UnitRow& row : {UnitRow{0, 144}, {1, 365.76}, {3, 3.6576}, {2, 144}, {-7, 144}}) {
    EXPECT_EQ(device_.SetUnits(row.units), 1);
    EXPECT_EQ(device_.GetUnits(), row.units);
    line_.Send("\x80\x20\x00\x20\x00\x60\x00\x20\x00\x10\x00\x60"s);
    double time = -1;
    EXPECT_EQ(AllocationsOf([&] { EXPECT_EQ(device_.ReadFrame(&time), 1U); }), 0);
    const float* const pose = device_.GetSensorPose(0);
    EXPECT_FLOAT_EQ(pose[0], static_cast<float>(row.range / 2 + 1));
    EXPECT_FLOAT_EQ(pose[1], static_cast<float>(-row.range / 2 + 2));
    EXPECT_FLOAT_EQ(pose[2], static_cast<float>(row.range / 2 + 3));
    EXPECT_FLOAT_EQ(pose[3], static_cast<float>(-kPi / 2));
    EXPECT_FLOAT_EQ(pose[4], static_cast<float>(-kPi / 4));
    EXPECT_FLOAT_EQ(pose[5], static_cast<float>(-kPi / 2));
    EXPECT_GT(time, 0);
    EXPECT_EQ(device_.GetSensorPose(1)[0], 0.0F);
  }
}

TEST_F(FlockOnALine, AnAnswerThatComesTooLateIsDropped) {
  ASSERT_EQ(Boot(BootDialogue()), kBooted);
  ExpectALateAnswerIsDropped(kOne, Expect("BB") + Send(kTwo));
  EXPECT_FLOAT_EQ(device_.GetSensorPose(0)[0], 2 * 365.76F / 8192);
}

TEST_F(FlockOnALine, ABacklogIsDroppedAndCounted) {
  ASSERT_EQ(Boot(BootDialogue()), kBooted);
  StatusLog log;
  device_.SetStatusLog(&log);
  device_.StartContinuous();
  for (int i = 0; i < 100; ++i) line_.Send(kOne);
  ASSERT_TRUE(device_.WaitForRX(20000, 1200));
  EXPECT_EQ(device_.ReadFrame(nullptr), 0U);
  line_.Send(kTwo);
  EXPECT_EQ(ReadAll(), std::vector<long>{2});
  EXPECT_EQ(log.Newest().text,
            "100 records of Ascension Flock waited for more than half a second and were dropped.");
}

// ---- Settings ------------------------------------------------------------------------------

struct HemisphereCase {
  int sensor;
  float zenith[3];
  std::string sent;
};

TEST_F(FlockOnALine, SetsTheHemisphereOfOneBird) {
  ASSERT_EQ(Boot(BootDialogue()), kBooted);
  const HemisphereCase cases[] = {
      {0, {1, 0, 0}, "\xF0L\x00\x00"s},
      {1, {-1, 0, 0}, "\xF1L\x00\x01"s},
      {2, {0, 1, 0}, "\xF2L\x06\x00"s},
      {3, {0, -1, 0}, "\xF3L\x06\x01"s},
      {4, {0, 0, 1}, "\xF4L\x0C\x00"s},
      {14, {0, 0, -1}, "\xFEL\x0C\x01"s},
      {5, {.5, .5, 0}, "\xF5L\x00\x00"s},
      {5, {1, -1, 0}, "\xF5L\x00\x00"s},
      {15, {1, 0, 0}, ""},
      {80, {1, 0, 0}, ""},
      {-2, {1, 0, 0}, ""},
  };
  std::string all;
  for (const HemisphereCase& row : cases) {
    EXPECT_EQ(device_.SetHemisphere(row.sensor, row.zenith), 0);
    all += row.sent;
  }
  EXPECT_TRUE(line_.Expect(all));
  EXPECT_EQ(line_.Received(), all);
}

TEST_F(FlockOnALine, SetsTheHemisphereOfAllBirdsAlsoWhileTheyStream) {
  ASSERT_EQ(Boot(BootDialogue()), kBooted);
  const float down[3] = {0, 0, -1};
  const Script dialogue =
      Answer("O!", "\x00\x06\x00\x00\x00"s) + Expect("\xF1L\x0C\x01") + Expect("\xF2L\x0C\x01");
  ScriptedPeer still(line_, dialogue);
  EXPECT_EQ(device_.SetHemisphere(-1, down), 0);
  EXPECT_EQ(still.Verdict(), "");

  ScriptedPeer streaming(
      line_, Answer("@", kOne) + Answer("B", kTwo) + dialogue + Expect("@") + Send(kThree));
  device_.StartContinuous();
  ASSERT_TRUE(WaitUntil([&] { return device_.InputQueueLength() == 12; }));
  EXPECT_EQ(device_.SetHemisphere(-1, down), 0);
  EXPECT_EQ(ReadAll(), std::vector<long>{3});
  EXPECT_EQ(streaming.Verdict(), "");
}

}  // namespace
}  // namespace kinetrel::test

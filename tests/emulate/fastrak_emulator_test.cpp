// The FASTRAK family's side of the wire, against bytes written out from the protocol.
#include "emulate/fastrak_emulator.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/emulate/device_bench.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

// 1, -2, 5 inches.
const MotionPose kPose{2.54, -5.08, 12.7, 90, -45, 30};

DeviceBench Fastrak(FastrakSettings settings = {}, const MotionPose& pose = kPose,
                    LineOptions line = {115200}) {
  return DeviceBench(std::make_unique<FastrakEmulator>(std::move(settings), MakeHold(pose)),
                     std::move(line));
}

DeviceBench FastrakOnRamp(FastrakSettings settings, LineOptions line = {115200}) {
  return DeviceBench(std::make_unique<FastrakEmulator>(std::move(settings), MakeRamp()),
                     std::move(line));
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
    ++count;
  }
  return count;
}

// ---- Dialogues ---------------------------------------------------------------------------------

struct Dialogue {
  const char* name;
  FastrakSettings settings;
  std::vector<Exchange> exchanges;
};

class FastrakDialogue : public testing::TestWithParam<Dialogue> {};

TEST_P(FastrakDialogue, AnswersAsTheUnitWould) {
  ExpectDialogue([] { return Fastrak(GetParam().settings); }, GetParam().exchanges);
}

const std::string kAscii = "   1.00  -2.00   5.00  90.00 -45.00  30.00\r\n";
const std::string kStatusOfFastrak = "21S000  0      3.02  Polhemus 3SPACE FASTRAK         \r\n";
constexpr FastrakModel kIso2 = FastrakModel::IsoTrak2;

INSTANTIATE_TEST_SUITE_P(
    Wire, FastrakDialogue,
    testing::Values(
        Dialogue{"PowersUpInAscii",
                 {.receivers = 2},
                 {{"c\r", ""}, {"P", "01 " + kAscii + "02 " + kAscii}, {"\r\n", ""}}},
        Dialogue{"Status",
                 {},
                 {{"S", kStatusOfFastrak},
                  {"uf", ""},
                  {"S", "21S003  0      3.02  Polhemus 3SPACE FASTRAK         \r\n"}}},
        Dialogue{"BitErrorsShowAndAreCleared",
                 {.receivers = 1, .errors = {'A', 'k'}},
                 {{"S", "21S000 65      3.02  Polhemus 3SPACE FASTRAK         \r\n"},
                  {"P", "01A" + kAscii},
                  {"T65,0\n", ""},
                  {"S", "21S000107      3.02  Polhemus 3SPACE FASTRAK         \r\n"},
                  {"T107,0\n", ""},
                  {"P", "01 " + kAscii},
                  {"S", kStatusOfFastrak}}},
        Dialogue{"StickyErrorsComeBack",
                 {.receivers = 1, .errors = {'b'}, .stickyErrors = true},
                 {{"T98,0\n", ""}, {"P", "01b" + kAscii}}},
        Dialogue{"OutputListPerStation",
                 {.receivers = 2},
                 {{"O1\r", "21O 2 4 1\r\n"},
                  {"O2, 2,1\r", ""},
                  {"O2\r", "22O 2 1\r\n"},
                  {"P", "01 " + kAscii + "02    1.00  -2.00   5.00\r\n"}}},
        Dialogue{"StationsOnAndOff",
                 {.receivers = 3},
                 {{"l1\r", "21l1110\r\n"},
                  {"l2,0\r", ""},
                  {"l4,1\r", ""},
                  {"l1\r", "21l1010\r\n"},
                  {"P", "01 " + kAscii + "03 " + kAscii}}},
        Dialogue{
            "CommandsWithoutAnAnswer",
            {},
            {{"A1, 0.0000,0.0000,0.0000, 200.0000,0.0000,0.0000, 0.0000,200.0000,0.0000\r", ""},
             {"H1,0.0,0.0,1.0\r", ""},
             {"N1,0,0,0\r", ""},
             {"R1\r", ""},
             {"y2\r", ""},
             {"KUF", ""}}},
        Dialogue{"WhatIsWrongIsRefused",
                 {.receivers = 1},
                 {{"l5,1\r", "21E*ERROR* EC -99 l5,1\r\n"},
                  {"O1,x\r", "21E*ERROR* EC -99 O1,x\r\n"},
                  {"A1,0,0,0,0,0,0,0,0,0\r", "21E*ERROR* EC -99 A1,0,0,0,0,0,0,0,0,0\r\n"},
                  {"Qzz\x81", "21E*ERROR* EC -99 Q\r\n"},
                  {"\rl1\r", "21l1000\r\n"}}},
        Dialogue{"AHalfCommandIsEndedByTheNext",
                 {.start = FastrakStart::HalfCommand, .receivers = 1},
                 {{"c\r", "21E*ERROR* EC -99 O1,2,c\r\n"}, {"P", "01 " + kAscii}}},
        Dialogue{"IsoTrak2NamesNoStations",
                 {.model = kIso2},
                 {{"l\r", "21l11\r\n"},
                  {"l2\r", ""},
                  {"l\r", "21l10\r\n"},
                  {"O\r", "21O 2 4 1\r\n"},
                  {"O2,1\r", ""},
                  {"P", "01    1.00  -2.00   5.00\r\n"},
                  {"S",
                   "21S000  0      V 3013"
                   "3SPACE ISOTRAK II               \r\n"}}}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Binary records ----------------------------------------------------------------------------

struct BinaryCase {
  const char* name;
  FastrakModel model;
  MotionPose pose;
  const char* setUp;
  std::string record;
};

class FastrakBinary : public testing::TestWithParam<BinaryCase> {};

TEST_P(FastrakBinary, SendsTheseBytes) {
  DeviceBench bench = Fastrak({.model = GetParam().model, .receivers = 1}, GetParam().pose);
  EXPECT_EQ(bench.Ask(GetParam().setUp), "");
  EXPECT_EQ(bench.Ask("P"), GetParam().record);
  bench.Send("C");
  const std::string streamed = bench.Collect(seconds(1));
  EXPECT_EQ(streamed.substr(0, GetParam().record.size()), GetParam().record);
}

const MotionPose kQuarters{75, -150, 0, 90, -45, 30};
const MotionPose kTurned{0, 0, 0, 90, 0, 0};
const std::string kFloats =
    "\x00\x00\x80\x3F\x00\x00\x00\xC0\x00\x00\xA0\x40"
    "\x00\x00\xB4\x42\x00\x00\x34\xC2\x00\x00\xF0\x41"s;

INSTANTIATE_TEST_SUITE_P(
    Wire, FastrakBinary,
    testing::Values(BinaryCase{"Floats", FastrakModel::Fastrak, kPose, "O1,2,4\rf",
                               "01 " + kFloats},
                    BinaryCase{"FloatsInCentimetres",
                               FastrakModel::Is600,
                               {1, -2, 5, 90, -45, 30},
                               "O1,2,4\ruf",
                               "01 " + kFloats},
                    BinaryCase{"FloatsWithCrLf", FastrakModel::Is300, kPose, "O1,2,4,1\rf",
                               "01 " + kFloats + "\r\n"},
                    BinaryCase{"Quaternion", FastrakModel::Fastrak, kTurned, "O1,11,1\rf",
                               "01 \xF3\x04\x35\x3F\0\0\0\0\0\0\0\0\xF3\x04\x35\x3F\r\n"s},
                    BinaryCase{"FourteenBits", FastrakModel::Fastrak, kQuarters, "O1,18,19\rfu",
                               "01 \x80\x10\x00\x60\x00\x00\x00\x20\x00\x70\x55\x0A"s},
                    BinaryCase{"FourteenBitQuaternion",
                               FastrakModel::Fastrak,
                               {},
                               "O1,20,1\rf",
                               "01 \xFF\x3F\0\0\0\0\0\0\r\n"s},
                    BinaryCase{"Words", FastrakModel::InsideTrak, kQuarters, "O1,2,4\rf",
                               "01 \x00\x20\x00\xC0\x00\x00\x00\x40\x00\xE0\x55\x15"s},
                    BinaryCase{"WordsOfIsoTrak",
                               FastrakModel::IsoTrak,
                               {83.1596, 400, -400, 114.59155902616465, 0, 0},
                               "O2,4,1\rf",
                               "01 \x00\x40\xFF\x7F\x00\x80\x00\x40\0\0\0\0\r\n"s}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Frames of reference -----------------------------------------------------------------------

TEST(FastrakFrames, AlignmentAndTipShowInThePose) {
  DeviceBench bench = Fastrak({.receivers = 1}, {10, 20, 30, 90, 0, 0});
  bench.Ask("u");
  // The new x points along the old y: the pose is seen turned back by a quarter.
  bench.Ask("A1,0,0,0,0,1,0,-1,0,0\r");
  EXPECT_EQ(bench.Ask("P"), "01   20.00 -10.00  30.00   0.00   0.00   0.00\r\n");
  bench.Ask("N1,5,0,0\r");
  EXPECT_EQ(bench.Ask("P"), "01   25.00 -10.00  30.00   0.00   0.00   0.00\r\n");
  bench.Ask("R1\r");
  EXPECT_EQ(bench.Ask("P"), "01   10.00  25.00  30.00  90.00   0.00   0.00\r\n");
}

// ---- Rates -------------------------------------------------------------------------------------

struct RateCase {
  const char* name;
  FastrakModel model;
  unsigned receivers;
  unsigned baud;
  std::size_t perTenSeconds;  // records
};

class FastrakRate : public testing::TestWithParam<RateCase> {};

TEST_P(FastrakRate, HoldsOverTenSeconds) {
  DeviceBench bench = Fastrak({.model = GetParam().model, .receivers = GetParam().receivers}, kPose,
                              {GetParam().baud});
  bench.Send("C");
  EXPECT_EQ(Count(bench.Collect(seconds(10) + milliseconds(60)), "\r\n"), GetParam().perTenSeconds);
}

// What left completely within 10.06 s, 47 characters a record; at 9600 baud the line carries one in
// 49 ms, every sixth slot.
INSTANTIATE_TEST_SUITE_P(
    Wire, FastrakRate,
    testing::Values(RateCase{"FourStations", FastrakModel::Fastrak, 4, 115200, 1206},
                    RateCase{"OneStation", FastrakModel::Fastrak, 1, 115200, 1206},
                    RateCase{"IsoTrak2", kIso2, 2, 115200, 603},
                    RateCase{"Is300", FastrakModel::Is300, 4, 115200, 1508},
                    RateCase{"SlowLine", FastrakModel::Fastrak, 4, 9600, 201}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(FastrakStream, FramesFollowEachOtherStationByStation) {
  DeviceBench bench = FastrakOnRamp({.receivers = 2});
  bench.Ask("uC", milliseconds(0));
  const std::string text = bench.Collect(seconds(1));
  for (int frame = 0; frame < 50; ++frame) {
    for (int station = 1; station <= 2; ++station) {
      const std::size_t at = static_cast<std::size_t>(2 * frame + station - 1) * 47;
      ASSERT_EQ(text.substr(at, 2), "0" + std::to_string(station));
      ASSERT_EQ(RampFrame(std::stod(text.substr(at + 3, 7)), -50), frame);
    }
  }
}

TEST(FastrakStream, APollIsNeverAnsweredWithAnOldFrame) {
  DeviceBench bench = FastrakOnRamp({.receivers = 4});
  std::string all;
  for (int i = 0; i < 1000; ++i) all += bench.Ask("P", milliseconds(1));
  // However hasty the host: 4 stations at 120 records a second are 30 frames.
  EXPECT_EQ(Count(all, "\r\n"), 120U);
}

TEST(FastrakStream, StopsAndIsPolledAgain) {
  DeviceBench bench = Fastrak({.receivers = 1});
  bench.Ask("C", seconds(1));
  bench.Ask("c");
  EXPECT_EQ(bench.Collect(seconds(1)), "");
  EXPECT_EQ(bench.Ask("P"), "01 " + kAscii);
}

// ---- Unexpected states -------------------------------------------------------------------------

TEST(FastrakStarts, StreamingUntilAHostStopsIt) {
  DeviceBench bench = Fastrak({.start = FastrakStart::Streaming, .receivers = 1});
  EXPECT_EQ(bench.Collect(milliseconds(100)).size(), 27 * 11);
  bench.Ask("c\r");
  EXPECT_EQ(bench.Collect(seconds(1)), "");
  EXPECT_EQ(bench.Ask("P").size(), 27);
}

TEST(FastrakStarts, HalfARecordComesWhenTheHostOpensThePort) {
  DeviceBench bench = Fastrak({.start = FastrakStart::HalfRecord, .receivers = 1});
  EXPECT_EQ(bench.Collect(seconds(1)), "");
  bench->HostOpened(bench.now());
  EXPECT_EQ(bench.Collect(milliseconds(100)).size(), 14);
  bench->HostOpened(bench.now());
  EXPECT_EQ(bench.Ask("P").size(), 27);
}

TEST(FastrakStarts, ReinitializingTakesItsTimeAndAnswersWhatCameMeanwhile) {
  DeviceBench bench =
      Fastrak({.start = FastrakStart::Streaming, .receivers = 1, .resetTime = seconds(3)});
  bench.Collect(milliseconds(100));
  EXPECT_EQ(bench.Ask("O1,2\x19S", milliseconds(2999)), "");
  EXPECT_EQ(bench.Ask("P", milliseconds(100)), kStatusOfFastrak + "01 " + kAscii);
}

TEST(FastrakStarts, ALossOfPowerForgetsTheConfiguration) {
  DeviceBench bench = Fastrak({.receivers = 1, .resetTime = seconds(3)});
  bench.Ask("ufO1,2\rC");
  bench->Strike(bench.now(), {FaultKind::Restart});
  EXPECT_EQ(bench.Ask("P", milliseconds(2999)), "");
  EXPECT_EQ(bench.Collect(milliseconds(100)), "01 " + kAscii);
}

// ---- Any input ---------------------------------------------------------------------------------

// It stays itself: after ten thousand bytes of noise, a re-initialisation brings it back.
TEST(FastrakNoise, AnyBytesLeaveItInOrder) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    DeviceBench bench = Fastrak({.receivers = 1, .resetTime = seconds(1)});
    std::mt19937_64 random(seed);
    for (int i = 0; i < 10000; ++i) {
      // Mostly the characters that commands are made of.
      const char letters[] = "CcPSUufFKOlARHNyT0123456789,.-\r\n ";
      const char byte = random() % 4 == 0 ? static_cast<char>(random())
                                          : letters[random() % (sizeof letters - 1)];
      bench.Ask({&byte, 1}, Moment(static_cast<std::int64_t>(random() % 2'000'000)));
    }
    bench.Collect(seconds(60));  // noise may have re-initialised it, and more of it then waits
    bench.Ask("\x19", seconds(2));
    EXPECT_EQ(bench.Ask("P"), "01 " + kAscii) << "seed " << seed;
  }
}

TEST(FastrakShow, TellsCommandsInWords) {
  DeviceBench bench = Fastrak();
  bench.Ask("O1, 2, 4,1\rl2,0\rT65,0\n");
  EXPECT_NE(bench.shown().find("station 1 sends position, Euler angles, CR LF"), std::string::npos);
  EXPECT_NE(bench.shown().find("station 2 off"), std::string::npos);
  EXPECT_NE(bench.shown().find("T65,0"), std::string::npos);
}

}  // namespace
}  // namespace kinetrel::test

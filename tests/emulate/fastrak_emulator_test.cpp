// The FASTRAK family's side of the wire, against bytes written out from the protocol.
#include "emulate/fastrak_emulator.h"

#include <gtest/gtest.h>

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
        Dialogue{"BadCommandsAreRefused",
                 {.receivers = 1},
                 {{"l5,1\r", "21E*ERROR* EC -99 l5,1\r\n"},
                  {"O1,x\r", "21E*ERROR* EC -99 O1,x\r\n"},
                  {"A1,0,0,0,0,0,0,0,0,0\r", "21E*ERROR* EC -99 A1,0,0,0,0,0,0,0,0,0\r\n"},
                  {"Qzz\x81", "21E*ERROR* EC -99 Q\r\n"},
                  {"\rl1\r", "21l1000\r\n"}}},
        Dialogue{"NextCommandEndsAHalfCommand",
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

// The runs of the whole road prove the other formats.
TEST(FastrakBinary, SendsTheseBytes) {
  struct Row {
    FastrakModel model;
    MotionPose pose;
    const char* setUp;
    std::string record;
  };
  const Row rows[] = {{FastrakModel::Fastrak,
                       {0, 0, 0, 90, 0, 0},
                       "O1,11,1\rf",
                       "01 \xF3\x04\x35\x3F\0\0\0\0\0\0\0\0\xF3\x04\x35\x3F\r\n"s},
                      {FastrakModel::Fastrak, {}, "O1,20,1\rf", "01 \xFF\x3F\0\0\0\0\0\0\r\n"s},
                      {FastrakModel::IsoTrak,
                       {83.1596, 400, -400, 114.59155902616465, 0, 0},
                       "O2,4,1\rf",
                       "01 \x00\x40\xFF\x7F\x00\x80\x00\x40\0\0\0\0\r\n"s}};
  for (const Row& row : rows) {
    DeviceBench bench = Fastrak({.model = row.model, .receivers = 1}, row.pose);
    EXPECT_EQ(bench.Ask(row.setUp), "");
    EXPECT_EQ(bench.Ask("P"), row.record) << row.setUp;
    bench.Send("C");
    EXPECT_EQ(bench.Collect(seconds(1)).substr(0, row.record.size()), row.record) << row.setUp;
  }
}

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
INSTANTIATE_TEST_SUITE_P(Wire, FastrakRate,
                         testing::Values(RateCase{"FourStations", FastrakModel::Fastrak, 4, 115200,
                                                  1206},
                                         RateCase{"Is300", FastrakModel::Is300, 4, 115200, 1508},
                                         RateCase{"SlowLine", FastrakModel::Fastrak, 4, 9600, 201}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(FastrakStream, APollIsNeverAnsweredWithAnOldFrame) {
  DeviceBench bench = FastrakOnRamp({.receivers = 4});
  std::string all;
  for (int i = 0; i < 1000; ++i) all += bench.Ask("P", milliseconds(1));
  // However hasty the host: 4 stations at 120 records a second are 30 frames.
  EXPECT_EQ(Count(all, "\r\n"), 120U);
}

// ---- Unexpected states -------------------------------------------------------------------------

TEST(FastrakStarts, RestartAnswersLaterWhatCameMeanwhile) {
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

}  // namespace
}  // namespace kinetrel::test

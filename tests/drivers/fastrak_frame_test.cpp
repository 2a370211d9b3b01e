// Frames of the FASTRAK driver, from records that come whole, in pieces, damaged or not at all.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <string>
#include <vector>

#include "tests/drivers/fastrak_unit.h"
#include "tests/support/allocation_counter.h"

namespace kinetrel::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

std::string F32(float value) {
  const auto bits = std::bit_cast<std::uint32_t>(value);
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(bits >> shift & 0xFF);
  return bytes;
}

// A 32-bit record; x tells one from another.
std::string Record(int station, float x, char error = ' ') {
  return "0" + std::to_string(station) + error + F32(x) + F32(-20) + F32(3) + F32(90) + F32(-45) +
         F32(10);
}

std::string Ended(const std::string& record) { return record + "\r\n"; }

constexpr unsigned kOutOfStep = ~0U;

// The stations read in each frame, and the x of each station's last good record.
struct Story {
  const char* name;
  Script sent;  // after 'C' or 'P'
  std::vector<unsigned> frames;
  std::vector<float> x;
  std::vector<std::string> logged = {};
  unsigned stations = 1;
  bool crLf = false;
  bool streamed = true;
};

Story Streamed(const char* name, Script sent, std::vector<unsigned> frames, std::vector<float> x,
               std::vector<std::string> logged = {}, unsigned stations = 1, bool crLf = false) {
  return {name, std::move(sent), std::move(frames), std::move(x), std::move(logged), stations,
          crLf};
}
Story Polled(const char* name, Script sent, std::vector<unsigned> frames, std::vector<float> x,
             std::vector<std::string> logged = {}) {
  return {name, std::move(sent), std::move(frames), std::move(x), std::move(logged), 1, false,
          false};
}

class FastrakStories : public FastrakTest, public testing::WithParamInterface<Story> {
 protected:
  void Prepare() {
    const Story& story = GetParam();
    const std::string list = story.stations == 1 ? "1000" : story.stations == 3 ? "1100" : "1111";
    ASSERT_EQ(Boot(FastrakBoots(list)), kBooted);
    ASSERT_EQ(device_->GetSensorMask(), story.stations);
    if (story.crLf) {
      ASSERT_NE(Heard([&] { device_->SetCrLf(1); }), "");
    }
  }
};

TEST_P(FastrakStories, AreRead) {
  Prepare();
  const Story& story = GetParam();
  if (story.streamed) device_->StartContinuous();
  ScriptedPeer unit(line_, Expect(story.streamed ? "C" : "P") + story.sent);
  std::vector<unsigned> frames;
  for (std::size_t i = 0; i < story.frames.size(); ++i) {
    double time = -1;
    frames.push_back(device_->ReadFrame(&time));
    EXPECT_GE(time, frames.back() != 0 ? 0 : -1);
  }
  EXPECT_EQ(unit.Verdict(), "");
  EXPECT_EQ(frames, story.frames);
  EXPECT_EQ(Logged(), story.logged);
  for (std::size_t i = 0; i < story.x.size(); ++i) {
    const float* const pose = device_->GetSensorPose(static_cast<int>(i));
    EXPECT_FLOAT_EQ(pose[0], story.x[i]) << "station " << i + 1;
    if (story.x[i] == 0) continue;
    EXPECT_FLOAT_EQ(pose[1], -20);
    EXPECT_FLOAT_EQ(pose[4], -0.7853982F);
  }
}

const std::string kOneWhole = Record(1, 5);
const std::string kFourWhole = Record(1, 1) + Record(2, 2) + Record(3, 3) + Record(4, 4);

INSTANTIATE_TEST_SUITE_P(
    Clean, FastrakStories,
    testing::Values(
        Polled("PolledRecord", Send(kOneWhole), {1}, {5}, {}),
        Streamed("FourStations", Send(kFourWhole + kFourWhole), {15, 15}, {1, 2, 3, 4}, {}, 15),
        // A value looks like a head, and a head follows the record: the record is whole.
        Streamed("LooksLikeAHead", Send("01 " + "01 \x41"s + kOneWhole.substr(7) + kOneWhole),
                 {1, 1}, {5}),
        // The same at the end of a stream: no other record can have cut it.
        Streamed("LooksLikeAHeadThenSilence",
                 Send("01 " + F32(5) + F32(-20) + F32(3) + F32(90) + F32(-45) +
                      "\x80"
                      "01 "),
                 {1}, {5})),
    [](const auto& row) { return std::string(row.param.name); });

const std::string kNoHead = "-1 Read Head failed.  0/2.";
const std::string kCut = "-1 Read Record failed.  Another one begins in it.";

INSTANTIATE_TEST_SUITE_P(
    Damaged, FastrakStories,
    testing::Values(
        Streamed("NoiseBefore", Send("\x11\x30\x99 xx0" + kOneWhole), {1}, {5}),
        Streamed("NoiseOfAHeadsFirstByte", Send("0000" + kOneWhole), {1}, {5}),
        Streamed("TooMuchNoise", Send(std::string(57, 'x') + kOneWhole), {0, 1}, {5},
                 {"-1 Read Head failed.  Record Length too long 29/27."}),
        Streamed("Silence", {}, {0}, {0}, {kNoHead}),
        Polled("CutThenSilence", Send(kOneWhole.substr(0, 17)), {0}, {0},
               {"-1 read_32 failed: 1. 2/4"}),
        Streamed("CutThenAnother", Send(kOneWhole.substr(0, 17) + Record(1, 6)), {0, 1}, {6},
                 {kCut}),
        Streamed("CutByItsLastByte", Send(kOneWhole.substr(0, 26) + Record(1, 6)), {0, 1}, {6},
                 {kCut}),
        Streamed("SecondOfFourCut",
                 Send(Record(1, 1) + Record(2, 2).substr(0, 8) + Record(3, 3) + Record(4, 4) +
                      kFourWhole),
                 {13, 15}, {1, 2, 3, 4}, {kCut}, 15),
        Streamed("SecondOfFourMissing",
                 Send(Record(1, 1) + Record(3, 3) + Record(4, 4) + kFourWhole), {13, 15},
                 {1, 2, 3, 4}, {"-1 Read Head failed.  1/2."}, 15),
        Streamed("LastOfFourMissing", Send(Record(1, 1) + Record(2, 2) + Record(3, 3) + kFourWhole),
                 {7, 15}, {1, 2, 3, 4}, {"-1 Read Head failed.  1/2."}, 15),
        Streamed("RecordsOfOthers",
                 Send(kFourWhole + Record(2, 2) + Record(4, 4) + Record(3, 3) + Record(1, 6)),
                 {1, 1}, {6}),
        Streamed("HeadOfTheSecondCutOff",
                 Send(Record(1, 1) + Record(2, 2).substr(3) + Record(3, 3) + Record(4, 4)), {13},
                 {1, 0, 3, 4}, {"-1 Read Head failed.  1/2."}, 15),
        Streamed("TailWrong", Send(kOneWhole + "\r\r" + Ended(Record(1, 6))), {0, 1}, {6},
                 {"-1 Read tail: Tail != 0x0A0D."}, 1, true),
        Streamed("CutWithTails",
                 Send(Ended(Record(1, 1).substr(0, 12)) + Ended(Record(2, 2)) +
                      Ended(Record(1, 6)) + Ended(Record(2, 7))),
                 {2, 3}, {6, 7}, {"-1 Read tail: Tail != 0x0A0D."}, 3, true),
        Streamed("NotANumber", Send("01 " + F32(NAN) + kOneWhole.substr(7) + Record(1, 6)), {0, 1},
                 {6}, {"-1 read_32 failed: not a number."}),
        Streamed("Unplugged", Send(kOneWhole) + Wait(50ms) + HangUp(), {1, 0}, {5}, {kNoHead})),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    TestErrors, FastrakStories,
    testing::Values(Streamed("ComeAndGo",
                             Send(Record(1, 1) + Record(2, 2) + Record(1, 1, 'A') + Record(2, 2) +
                                  Record(1, 1, 'A') + Record(2, 2) + Record(1, 1, 'k') +
                                  Record(2, 2) + Record(1, 1) + Record(2, 2)),
                             {3, 3, 3, 3, 3}, {1, 2},
                             {"-65 Sensor 1: Error #65: X Driver Linearity (after 1 valid samples)",
                              "-107 Sensor 1: Error #107: A Low Signal (after 2 valid samples)",
                              "0 Sensor 1: No Errors.  (after 1 error samples)"},
                             3)),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(BootedFastrak, A14BitRecordOutOfStepSpoilsTheFrame) {
  device_->SetProtocol(1);
  device_->StartContinuous();
  line_.Send(
      "01 \x80\x20\x00\x00\x00\x00"
      "\x00\x00\x00\x00\x00\x20"s);
  EXPECT_EQ(device_->ReadFrame(nullptr), 1U);
  EXPECT_FLOAT_EQ(device_->GetSensorPose(0)[0], 150);
  EXPECT_FLOAT_EQ(device_->GetSensorPose(0)[5], 1.5707964F);
  line_.Send(
      "01 \x80\x10\x80\x00\x00\x00"
      "\x00\x00\x00\x00\x00\x20"s);
  EXPECT_EQ(device_->ReadFrame(nullptr), kOutOfStep);
  EXPECT_FLOAT_EQ(device_->GetSensorPose(0)[0], 150);
  EXPECT_EQ(Logged(),
            (std::vector<std::string>{"-1 Syc bit invalid in 14 bit read. 101000000000"}));
  line_.Send("01 \x80\x20");
  EXPECT_EQ(device_->ReadFrame(nullptr), 0U);
  EXPECT_EQ(log_.Newest().text, "Read Record failed in serial port read 2/12.");
}

TEST_F(BootedFastrak, ALateAnswerIsNotReadAsTheNextOne) {
  device_->Poll();
  EXPECT_EQ(device_->ReadFrame(nullptr), 0U);
  line_.Send(Record(1, 1));
  ASSERT_TRUE(device_->WaitForRX(20000, 27));
  ScriptedPeer unit(line_, Expect("PP") + Send(Record(1, 2)));
  EXPECT_EQ(device_->ReadFrame(nullptr), 1U);
  EXPECT_FLOAT_EQ(device_->GetSensorPose(0)[0], 2);
}

// The engine ends a stream with a poll; its answer is no record of the next stream.
TEST_F(BootedFastrak, ARestartedStreamBeginsWithANewRecord) {
  ScriptedPeer unit(
      line_, Expect("CcP") + Wait(30ms) + Send(Record(1, 1)) + Expect("C") + Send(Record(1, 2)));
  device_->StartContinuous();
  device_->Poll();
  device_->StartContinuous();
  EXPECT_EQ(device_->ReadFrame(nullptr), 1U);
  EXPECT_FLOAT_EQ(device_->GetSensorPose(0)[0], 2);
  EXPECT_EQ(unit.Verdict(), "");
}

TEST_F(BootedFastrak, ABacklogIsDroppedAndCounted) {
  device_->StartContinuous();
  for (int i = 0; i < 100; ++i) line_.Send(Record(1, 1));
  ASSERT_TRUE(device_->WaitForRX(20000, 2700));
  EXPECT_EQ(device_->ReadFrame(nullptr), 0U);
  line_.Send(Record(1, 7));
  EXPECT_EQ(device_->ReadFrame(nullptr), 1U);
  EXPECT_FLOAT_EQ(device_->GetSensorPose(0)[0], 7);
  EXPECT_EQ(Logged()[0],
            "5 100 records of FasTRAK waited for more than half a second and were dropped.");
}

TEST_F(BootedFastrak, ReadingAllocatesNothing) {
  device_->StartContinuous();
  for (int i = 0; i < 20; ++i) line_.Send("noise" + Record(1, 1));
  const auto readAll = [this] {
    for (int i = 0; i < 20; ++i) EXPECT_EQ(device_->ReadFrame(nullptr), 1U);
  };
  EXPECT_EQ(AllocationsOf(readAll), 0);
}

}  // namespace
}  // namespace kinetrel::test

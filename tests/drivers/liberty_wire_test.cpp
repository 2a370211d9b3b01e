// Frames and cycles from the bytes of a Liberty's line.
#include "drivers/liberty_wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

// Poses of these tests have a position and a frame count: 8 + 12 + 4 bytes.
constexpr std::size_t kRecord = 24;
constexpr std::size_t kCounter = 20;

// 1, -2, 0.5; then the count.
std::string Pose(char station, char count, char mark = '\0', char command = 'C') {
  return "LY"s + station + command + mark + "\0\x10\0"s +
         "\x00\x00\x80\x3F\x00\x00\x00\xC0\x00\x00\x00\x3F"s + count + "\0\0\0"s;
}
const std::string kStations = "LY\0\x15\0\0\4\0\3\0\3\0"s;

struct Bytes {
  const char* name;
  std::string come;
  std::string frames;  // station, command and size of each
};

void Feed(LibertyFrameReader& reader, std::string_view bytes) {
  const auto room = reader.Room();
  ASSERT_GE(room.size(), bytes.size());
  std::copy(bytes.begin(), bytes.end(), room.begin());
  reader.Took(bytes.size());
}

std::string TextOf(const LibertyFrame& frame) {
  const std::string command = frame.command < ' '
                                  ? "^" + std::string(1, static_cast<char>(frame.command + 'A' - 1))
                                  : std::string(1, static_cast<char>(frame.command));
  return std::to_string(frame.station) + command + std::to_string(frame.bytes.size()) + " ";
}

std::string AllOf(LibertyFrameReader& reader) {
  std::string text;
  while (const auto frame = reader.Next()) text += TextOf(*frame);
  return text;
}

class LibertyFrames : public testing::TestWithParam<Bytes> {};

TEST_P(LibertyFrames, AreFoundInPiecesOfAnySize) {
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, GetParam().come.size()}) {
    LibertyFrameReader reader;
    reader.SetRecordSize(kRecord);
    std::string found;
    for (std::size_t i = 0; i < GetParam().come.size(); i += piece) {
      Feed(reader, std::string_view(GetParam().come).substr(i, piece));
      found += AllOf(reader);
    }
    EXPECT_EQ(found, GetParam().frames) << "in pieces of " << piece;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Of, LibertyFrames,
    testing::Values(
        Bytes{"Cycle", Pose(1, 9) + Pose(2, 9), "1C24 2C24 "},
        Bytes{"PolledPose", Pose(3, 9, ' ', 'P'), "3P24 "},
        Bytes{"PoseWithErrorMark", Pose(1, 9, 'I') + Pose(16, 9, 'u'), "1C24 16C24 "},
        Bytes{"AnswerAmongPoses", Pose(1, 9) + kStations + Pose(1, 10), "1C24 0^U12 1C24 "},
        Bytes{"OtherMarks", "PA\0V\0\0\2\0ok"s + "LU\0V\0\0\0\0"s, "0V10 0V8 "},
        Bytes{"Refusal", "LY\0\0\1\0\7\0Invalid"s + Pose(1, 9), "1C24 "},
        Bytes{"TextBefore", "\r\nLIBERTY Ready!\r\n" + Pose(1, 9), "1C24 "},
        Bytes{"CutPose", Pose(1, 9).substr(0, 17) + Pose(1, 10) + Pose(1, 11), "1C24 1C24 "},
        Bytes{"RepeatedMark", "LYLYL" + Pose(1, 9), "1C24 "},
        Bytes{"ImpossibleStation", Pose(17, 9) + Pose(0, 9) + Pose(2, 9), "2C24 "},
        Bytes{"AnotherSize", "LY\1C\0\0\4\0abcd" + Pose(1, 9), "1C24 "s},
        Bytes{"FalseSize", "LY\0V\0\0\xFF\xFF"s + Pose(1, 9), "1C24 "},
        Bytes{"OnlyMarks", "LYLYLYLYLYLYLYLYLYLYLYLY", ""}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Cycles --------------------------------------------------------------------------------

// Stations 1 and 3 are active.
class LibertyCyclesOfTwo : public testing::Test {
 protected:
  LibertyCyclesOfTwo() {
    cycles_.SetLayout(kRecord, kCounter);
    cycles_.SetStations(0b101, now_);
  }

  void Add(char station, char count) {
    const std::string pose = Pose(station, count);
    const std::vector<std::uint8_t> bytes(pose.begin(), pose.end());
    cycles_.Add({static_cast<unsigned>(station), 'C', 0, bytes}, now_);
  }
  // Station and count of the cycle's records.
  std::string Take() {
    const auto cycle = cycles_.Take(now_);
    std::string records;
    for (std::size_t i = 0; i < cycle.size(); i += kRecord) {
      records += std::to_string(cycle[i + 2]) + ":" + std::to_string(cycle[i + kCounter]) + " ";
    }
    return records;
  }

  // The same of the records that NextRecord tells.
  std::string Next() {
    std::string records;
    for (auto next = cycles_.NextRecord(); !next.empty(); next = cycles_.NextRecord()) {
      records += std::to_string(next[2]) + ":" + std::to_string(next[kCounter]) + " ";
    }
    return records;
  }

  std::int64_t now_ = 1000;  // ms
  LibertyCycles cycles_;
};

TEST_F(LibertyCyclesOfTwo, TellEachRecordOfTheNextCycleOnce) {
  EXPECT_EQ(Next(), "");
  Add(3, 4);
  EXPECT_EQ(Next(), "3:4 ");
  EXPECT_EQ(Next(), "");
  Add(1, 4);
  Add(1, 5);
  EXPECT_EQ(Next(), "1:4 ");  // the next cycle waits until this one was taken
  EXPECT_EQ(Take(), "1:4 3:4 ");
  EXPECT_EQ(Next(), "1:5 ");
  Add(3, 5);
  Add(1, 6);
  Add(3, 6);
  EXPECT_EQ(Next(), "3:5 ");
  Take();
  EXPECT_EQ(Next(), "1:6 3:6 ");
  cycles_.DropAll();
  EXPECT_EQ(Next() + Take(), "");
}

TEST_F(LibertyCyclesOfTwo, AreReturnedInOrderAndTheLastAgain) {
  EXPECT_EQ(Take(), "");
  Add(1, 4);
  EXPECT_EQ(Take(), "");
  Add(3, 4);
  Add(3, 5);
  Add(2, 5);  // not active
  Add(1, 5);
  EXPECT_EQ(Take(), "1:4 3:4 ");
  EXPECT_EQ(Take(), "1:5 3:5 ");
  EXPECT_EQ(Take(), "1:5 3:5 ");
}

TEST_F(LibertyCyclesOfTwo, CloseWithoutAStationWhenTheNextBeginsOrByTimeOut) {
  Add(1, 4);
  Add(1, 5);
  EXPECT_EQ(Take(), "1:4 ");
  now_ += LibertyCycles::kTimeOut + 1;
  EXPECT_EQ(Take(), "1:5 ");
  Add(3, 6);
  Add(1, 6);
  EXPECT_EQ(Take(), "1:6 3:6 ");
}

TEST_F(LibertyCyclesOfTwo, StayOpenForAsLongAsASlowLineNeeds) {
  cycles_.SetLineTime(75);
  Add(1, 4);
  now_ += 75;
  EXPECT_EQ(Take(), "");
  Add(3, 4);
  EXPECT_EQ(Take(), "1:4 3:4 ");
  Add(1, 5);
  now_ += 75 + LibertyCycles::kTimeOut + 1;
  EXPECT_EQ(Take(), "1:5 ");
  Add(3, 5);  // the late rest
  now_ += 75 + LibertyCycles::kTimeOut + 1;
  EXPECT_EQ(Take(), "3:5 ");
}

TEST_F(LibertyCyclesOfTwo, DoNotWaitForAMissingStationUntilItReturns) {
  char count = 0;
  while (count < 11) Add(1, ++count);
  while (Take() != "1:10 ") ASSERT_GT(count, 0);
  Add(1, ++count);
  EXPECT_EQ(Take(), "1:11 ");
  EXPECT_EQ(Take(), "1:12 ");  // at once
  EXPECT_EQ(cycles_.Missing(now_), 0U);
  now_ += LibertyCycles::kSilence + 1;
  EXPECT_EQ(cycles_.Missing(now_), 0b101U);
  Add(3, 13);
  EXPECT_EQ(cycles_.Missing(now_), 0b001U);
  Add(1, 13);
  EXPECT_EQ(Take(), "1:13 3:13 ");
}

TEST_F(LibertyCyclesOfTwo, ALateCallerGetsTheNewestHalfSecond) {
  for (int i = 0; i < 200; ++i) {
    Add(1, static_cast<char>(i));
    Add(3, static_cast<char>(i));
  }
  EXPECT_EQ(Take(), "1:74 3:74 ");
  for (int i = 0; i < 124; ++i) Take();
  EXPECT_EQ(Take(), "1:199 3:199 ");
  EXPECT_EQ(Take(), "1:199 3:199 ");
}

}  // namespace
}  // namespace kinetrel::test

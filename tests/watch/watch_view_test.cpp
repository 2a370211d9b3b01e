// What kinetrel-watch makes of a block and of its command line: pure functions.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "tests/watch/tracker.h"
#include "watch/frame_follower.h"
#include "watch/watch_options.h"
#include "watch/watch_view.h"

namespace kinetrel::test {
using namespace watch;
namespace {

WatchSnapshot Snapshot(void (*fill)(SharedTrackBlock&), TrackerState state) {
  WatchSnapshot snapshot{.slot = 2, .bin = 11, .state = state, .silence = 12.9, .block = {}};
  InitializeBlock(snapshot.block, true);
  fill(snapshot.block);
  snapshot.block.frameCount = 812;
  return snapshot;
}

std::string Joined(const std::vector<ViewLine>& lines) {
  std::string text;
  for (const ViewLine& line : lines) text += line.text + "\n";
  return text;
}

// Whether a text is one JSON value of printable ASCII: from the innermost value out, every value
// becomes a "v" and every name an "s".
bool IsJson(std::string text) {
  const std::regex strings(R"~("([ !#-\[\]-~]|\\["\\])*")~");
  const std::regex names(R"~("[A-Za-z]+":)~");
  const std::regex values(
      R"(null|-?(0|[1-9]\d*)(\.\d+)?(e[-+]?\d+)?|\[(v(,v)*)?\]|\{(s:v(,s:v)*)?\})");
  text = std::regex_replace(std::regex_replace(text, names, "s:"), strings, "v");
  for (std::string before; before != text;) {
    before = text;
    text = std::regex_replace(text, values, "v");
  }
  return text == "v";
}

// ---- The table ---------------------------------------------------------------------------------

TEST(TableView, ShowsEverythingOfARunningTracker) {
  const TableForm form{.degrees = true, .columns = 100, .rows = 24, .publicationRate = 120};
  WatchSnapshot snapshot = Snapshot(FillBlock, TrackerState::Running);
  snapshot.block.sampleTime = 13.5;
  snapshot.block.publishTime = 13.5025;
  EXPECT_EQ(
      Joined(TableView(snapshot, form)),
      "Test tracker                                                     slot 2, bin 11\n"
      "state      running\n"
      "data       position (cm), angles (degrees), quaternion\n"
      "sensors    1, 3\n"
      "rate       60.0 Hz stated; 120.0 publications/s measured, 60.0 a sensor\n"
      "frame      812, published 13.502 s; sampled 2.5 ms before\n"
      "buttons    1, 2, 4\n"
      "\n"
      "sensor         x         y         z   azimuth elevation      roll     q.w     q.x     q.y"
      "     q.z\n"
      "     1     1.000    -2.500     3.000     28.65    -14.32      7.16  1.0000  0.0000  0.0000"
      "  0.0000\n"
      "     3  -100.000   200.000  -300.000    180.00     57.30    -57.30  0.5000 -0.5000  0.5000"
      " -0.5000\n");
}

struct StateCase {
  TrackerState state;
  const char* words;
  bool poses;
};

TEST(TableView, ShowsTheStateAndNoRateOfASilentTracker) {
  const StateCase rows[] = {
      {TrackerState::Awaited, "waiting for a tracker on slot 2 ...", false},
      {TrackerState::Starting, "waiting for the next frame ...", true},
      {TrackerState::Silent, "no new frames for 12 s", true},
      {TrackerState::Gone, "the tracker on slot 2 has closed; waiting for it to come back ...",
       true},
  };
  for (const StateCase& row : rows) {
    const auto lines = TableView(Snapshot(FillBlock, row.state), {.publicationRate = 120});
    EXPECT_EQ(lines.at(1).text, std::string("state      ") + row.words);
    EXPECT_EQ(lines.at(1).style, LineStyle::Alert);
    EXPECT_EQ(lines.size() > 2, row.poses) << row.words;
    EXPECT_EQ(Joined(lines).find("measured"), std::string::npos) << row.words;
  }
}

// Whatever the block holds and however small the window: it fits, and nothing but text comes out.
TEST(TableView, FitsEveryWindowWithEveryBlock) {
  for (const auto fill : {FillBlock, FillWithNaN, FillWithEscapes, FillWithNoise}) {
    for (const int columns : {0, 1, 7, 40, 80, 97, 98, 99, 200}) {
      for (const int rows : {0, 1, 2, 3, 10, 24, 100}) {
        const auto lines = TableView(Snapshot(fill, TrackerState::Running),
                                     {.columns = columns, .rows = rows, .publicationRate = 1e300});
        EXPECT_LE(lines.size(), static_cast<std::size_t>(std::max(rows - 1, 1)));
        for (const ViewLine& line : lines) {
          EXPECT_LE(line.text.size(), static_cast<std::size_t>(std::max(columns - 1, 1)));
          EXPECT_EQ(line.text, AsciiText(line.text));
        }
      }
    }
  }
}

TEST(TableView, InALowWindowThePosesComeFirst) {
  const std::string text =
      Joined(TableView(Snapshot(FillBlock, TrackerState::Running), {.columns = 120, .rows = 6}));
  EXPECT_NE(text.find("\n     3  -100.000"), std::string::npos) << text;
}

// ---- Lines and words ---------------------------------------------------------------------------

TEST(LineViews, LeaveOutWhatIsNotPublished) {
  WatchSnapshot snapshot = Snapshot(FillBlock, TrackerState::Running);
  snapshot.block.flags = 0x1 | TrackFlags::kQuaternion;
  snapshot.block.sensorMask = 0x1;
  EXPECT_EQ(PlainView(snapshot, false),
            "frame 812 sample 0.000000 published 0.000000 sensor 1 quaternion 1.00000 0.00000 "
            "0.00000 0.00000");
  const std::string json = JsonView(snapshot, false);
  EXPECT_EQ(json, R"({"slot":2,"bin":11,"device":"Test tracker","frame":812,"sampleTime":0,)"
                  R"("publishTime":0,"rate":60,"unit":"inch","angleUnit":"radian","buttons":null,)"
                  R"("sensors":[{"sensor":1,"quaternion":[1,0,0,0]}]})");
  EXPECT_TRUE(IsJson(json));
}

TEST(LineViews, AreOneLineOfTextWhateverTheBlockHolds) {
  for (const auto fill : {FillBlock, FillWithNaN, FillWithEscapes, FillWithNoise}) {
    for (const bool degrees : {false, true}) {
      const WatchSnapshot snapshot = Snapshot(fill, TrackerState::Running);
      const std::string plain = PlainView(snapshot, degrees);
      EXPECT_EQ(plain, AsciiText(plain));
      const std::string json = JsonView(snapshot, degrees);
      EXPECT_TRUE(IsJson(json)) << json;
      EXPECT_EQ(json, AsciiText(json));
    }
  }
}

TEST(WatchText, SaysMasksAndNumbersInWords) {
  EXPECT_EQ(SensorWords(0), "none");
  EXPECT_EQ(SensorWords(~0U), "1-32");
  EXPECT_EQ(SensorWords(0x80000237), "1-3, 5, 6, 10, 32");
  EXPECT_EQ(UnitWord(0) + UnitWord(15), "inchunit 15");
  EXPECT_EQ(Cell(-12.3456, 9, 3), "  -12.346");
  EXPECT_EQ(Cell(-1.0e30, 9, 3), " -1.0e+30");
  EXPECT_EQ(Cell(-0.0004, 9, 3), "    0.000");
  EXPECT_EQ(Cell(-std::numeric_limits<double>::infinity(), 9, 3), "     -inf");
  EXPECT_EQ(Cell(-std::numeric_limits<double>::quiet_NaN(), 9, 3), "      nan");
  EXPECT_EQ(JsonText("a\"b\\c\x1b\xff"), R"("a\"b\\c??")");
  EXPECT_EQ(JsonNumber(0.1F), "0.1");
}

// ---- The rate ----------------------------------------------------------------------------------

TEST(RateMeter, MeasuresAcrossTheWindowAndForgets) {
  RateMeter meter;
  double now = 0;
  std::int32_t count = INT32_MAX - 100;  // goes round within the test
  const auto run = [&](double seconds, double period, int step) {
    for (const double end = now + seconds; now < end; now += period) {
      meter.Add(now, count);
      count = static_cast<std::int32_t>(static_cast<std::uint32_t>(count) +
                                        static_cast<std::uint32_t>(step));
    }
  };
  run(0.3, 0.01, 2);
  EXPECT_FALSE(meter.PerSecond().has_value());
  run(3, 0.01, 2);
  EXPECT_NEAR(meter.PerSecond().value_or(0), 200, 1);
  run(3, 0.001, 1);
  EXPECT_NEAR(meter.PerSecond().value_or(0), 1000, 5);
  run(20, 4, 1);  // slower than the window is long
  EXPECT_NEAR(meter.PerSecond().value_or(0), 0.25, 0.01);
  meter.Add(now, count - 1000);  // a writer that begins afresh
  EXPECT_FALSE(meter.PerSecond().has_value());
}

// ---- The command line --------------------------------------------------------------------------

WatchCommand Parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "kinetrel-watch");
  return ParseWatchCommand(static_cast<int>(arguments.size()), arguments.data());
}

TEST(WatchOptions, TakesEveryOption) {
  const WatchCommand command = Parse({"--slot", "16", "--bin=15", "--json", "--degrees", "--frames",
                                      "7", "--timeout=0.0015", "--slot", "3"});
  ASSERT_FALSE(command.ending) << command.ending->text;
  EXPECT_EQ(command.options.slot, 3);
  EXPECT_EQ(command.options.bin, 15);
  EXPECT_EQ(command.options.form, OutputForm::Json);
  EXPECT_TRUE(command.options.degrees);
  EXPECT_EQ(command.options.frames, 7U);
  EXPECT_EQ(command.options.timeout, Milliseconds(2));
  EXPECT_EQ(Parse({"--help", "--nonsense"}).ending->exitCode, 0);
}

TEST(WatchOptions, RefusesWithAReason) {
  const std::pair<std::vector<const char*>, const char*> rows[] = {
      {{"--slot", "0"}, "--slot: wants a number from 1 to 16, not '0'"},
      {{"--slot", "99999999999999999999"}, "not '99999999999999999999'"},
      {{"--slot"}, "--slot: 1 required NUMBER missing"},
      {{"--bin", "-1"}, "--bin: wants a number from 0 to 15, not '-1'"},
      {{"--frames", "0"}, "--frames: wants a number from 1 to "},
      {{"--timeout", "0"}, "--timeout: wants a number from 0.001 to 1000000, not '0'"},
      {{"--timeout", "nan"}, "not 'nan'"},
      {{""}, "unknown argument ''"},
      {{"\x1b[2J"}, "unknown argument '?[2J'"},
  };
  for (const auto& [arguments, reason] : rows) {
    const WatchCommand command = Parse(arguments);
    ASSERT_TRUE(command.ending) << reason;
    EXPECT_EQ(command.ending->exitCode, 2);
    EXPECT_NE(command.ending->text.find(reason), std::string::npos) << command.ending->text;
  }
}

}  // namespace
}  // namespace kinetrel::test

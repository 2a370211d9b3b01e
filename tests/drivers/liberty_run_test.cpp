// Whole runs of the Liberty: the substitute of its library, known motion or an emulator on its
// line, the program, and a client.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <optional>

#include "devices/pose.h"
#include "emulate/motion.h"
#include "publish/shared_track_reader.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using Environment = std::vector<std::pair<std::string, std::string>>;
using Arguments = std::vector<std::string>;

class LibertyProgram : public testing::Test {
 protected:
  ~LibertyProgram() override { ::unlink(link_.c_str()); }

  void StartEmulator(Arguments more = {}) {
    Arguments arguments{"liberty", "--motion=ramp", "--link", link_};
    arguments.insert(arguments.end(), more.begin(), more.end());
    emulator_.emplace("kinetrel-emulate", arguments);
    ASSERT_TRUE(emulator_->ExpectOutput("KINETREL_COM1="));
  }
  void StopEmulator() {
    emulator_->Signal(SIGTERM);
    EXPECT_EQ(emulator_->Wait(), 0);
  }

  // Over the emulator where one was started.
  void Start(Environment more = {}, Arguments arguments = {}) {
    ChildProcess::Options options{.environment = {{"KINETREL_PDI", KINETREL_PDI_SUBSTITUTE}},
                                  .emptyInput = true};
    if (emulator_) {
      options.environment.push_back({"KINETREL_COM1", link_});
      options.environment.push_back({"KINETREL_PDI_SERIAL", "1"});
    }
    options.environment.insert(options.environment.end(), more.begin(), more.end());
    arguments.insert(arguments.begin(), {"-d10", "-p1", "-w" + std::to_string(slot_.slot())});
    tracker_.emplace("kinetrel", arguments, options);
  }

  // The next frame, unless none comes in time.
  bool Next(int& seen) {
    const bool fresh = reader_.OpenOnly(0) && reader_.WaitForFrame(seen, Milliseconds(100)) &&
                       reader_.Copy(block_, Milliseconds(1000)) && block_.frameCount != seen;
    if (fresh) seen = block_.frameCount;
    return fresh;
  }
  bool FramesPass(int count) {
    int seen = -1;
    if (!WaitUntil([&] { return Next(seen); })) return false;
    const int first = seen;
    return WaitUntil([&] { return Next(seen) && seen >= first + count; });
  }

  // The exit code, once it was told to end.
  int EndWithin(seconds patience) {
    const auto before = steady_clock::now();
    tracker_->Signal(SIGINT);
    const int code = tracker_->Wait();
    EXPECT_LT(steady_clock::now() - before, patience);
    return code;
  }

  std::string link_ = "/tmp/kinetrel-liberty-" + std::to_string(::getpid());
  FreeSlot slot_;
  std::optional<ChildProcess> emulator_;
  std::optional<ChildProcess> tracker_;
  SharedTrackReader reader_{slot_.device()};
  SharedTrackBlock block_{};
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr seconds kTimeToEnd{9};
constexpr bool kMayLose = true;  // too slow on a busy machine for what the line keeps
#else
constexpr seconds kTimeToEnd{3};
constexpr bool kMayLose = false;
#endif

// ---- A thousand frames ---------------------------------------------------------------------

struct Source {
  const char* name;
  std::optional<Arguments> emulator;  // its options; none: the tracker of known motion
};

class LibertyRun : public LibertyProgram, public testing::WithParamInterface<Source> {};

TEST_P(LibertyRun, AThousandFramesArriveNoneLostNoneDoubled) {
  if (GetParam().emulator) StartEmulator(*GetParam().emulator);
  Start();
  int first = -1;
  int seen = 0;
  std::uint64_t firstRamp = 0;
  const bool whole = WaitUntil([&] {
    if (!Next(seen)) return false;
    const auto& pose = block_.poses[0];
    const std::uint64_t ramp = RampFrame(pose[0], pose[2]);
    if (std::exchange(first, first < 0 ? seen : first) < 0) firstRamp = ramp;
    const auto frames = static_cast<std::uint64_t>(seen - first);
    EXPECT_TRUE(ramp - firstRamp == frames || (kMayLose && ramp - firstRamp > frames))
        << ramp - firstRamp << " cycles, " << frames << " frames";
    const MotionPose right = MakeRamp()->At(0, ramp, 0);
    EXPECT_NEAR(pose[0], right.x, 1e-4);
    EXPECT_NEAR(pose[5], right.roll * kRadiansPerDegree, 1e-5);
    return seen - first >= 1000;
  });
  EXPECT_TRUE(whole) << seen << tracker_->error();
  EXPECT_EQ(EndWithin(kTimeToEnd), 0);
}

INSTANTIATE_TEST_SUITE_P(
    From, LibertyRun,
    testing::Values(Source{"KnownMotion", {}}, Source{"Emulator", Arguments{"--stations=1"}},
                    Source{"StreamingEmulator", Arguments{"--start=streaming", "--last-cycle"}},
                    Source{"HalfCommand",
                           Arguments{"--start=half-command", "--blank-good", "--bit=8"}}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- A library that fails ------------------------------------------------------------------

enum class Goes { On, Silent, NotAtAll };  // frames come; none do; it does not start

struct Trouble {
  const char* name;
  const char* variable;
  const char* value;
  Goes goes;
};

class LibertyTrouble : public LibertyProgram, public testing::WithParamInterface<Trouble> {};

TEST_P(LibertyTrouble, CostsNoMoreThanItMustAndTheProgramEndsInTime) {
  const Trouble& row = GetParam();
  const auto isFor = [&row](const char* name) { return std::string(row.name) == name; };
  Start({{row.variable, row.value}, {"KINETREL_PDI_BIT", isFor("ClearBITErrs") ? "4" : "0"}},
        {"-s0x5", "-k1", "-u0", "-h0,0,1", "-a1,0,0;0,1,0", isFor("RequestPno") ? "-z-" : "-z+"});
  if (row.goes == Goes::NotAtAll) {
    EXPECT_EQ(tracker_->Wait(), 254) << tracker_->error();
    return;
  }
  ASSERT_TRUE(tracker_->ExpectError("Running ...")) << tracker_->error();
  if (row.goes == Goes::On) {
    EXPECT_TRUE(FramesPass(60));
  } else {
    EXPECT_TRUE(WaitUntil([this] {  // the moment at which it is started anew
      const std::string& said = tracker_->error();
      return said.find("sends nothing usable") != said.npos || said.find("has gone") != said.npos;
    }));
  }
  EXPECT_EQ(EndWithin(kTimeToEnd), 0);
}

Trouble Fails(const char* call, Goes goes) { return {call, "KINETREL_PDI_FAIL", call, goes}; }

INSTANTIATE_TEST_SUITE_P(
    With, LibertyTrouble,
    testing::Values(Fails("CnxReady", Goes::NotAtAll), Fails("SetSerialIF", Goes::On),
                    Fails("DiscoverCnx", Goes::NotAtAll), Fails("Disconnect", Goes::On),
                    Fails("SetSDataList", Goes::Silent), Fails("GetBITErrs", Goes::On),
                    Fails("ClearBITErrs", Goes::On), Fails("GetStationMap", Goes::Silent),
                    Fails("SetStationMap", Goes::On), Fails("MaxSensors", Goes::Silent),
                    Fails("StartContPno", Goes::Silent), Fails("StopContPno", Goes::On),
                    Fails("RequestPno", Goes::Silent), Fails("LastPnoPtr", Goes::Silent),
                    Fails("SetFrameRate", Goes::On), Fails("GetFrameRate", Goes::On),
                    Fails("SetMetric", Goes::On), Fails("SetSAlignment", Goes::On),
                    Fails("SetSyncEnabled", Goes::On), Fails("SetSHemisphere", Goes::On),
                    Fails("SetSHemiTrack", Goes::On)),
    [](const auto& row) { return std::string(row.param.name); });

Trouble Frames(const char* name, const char* mishap, Goes goes) {
  return {name, "KINETREL_PDI_FRAMES", mishap, goes};
}

INSTANTIATE_TEST_SUITE_P(
    Of, LibertyTrouble,
    testing::Values(Frames("NoFrame", "null@20", Goes::Silent),
                    Frames("HalfAFrame", "short@20", Goes::On),
                    Frames("ASizeThatLies", "lie@20", Goes::On),
                    Frames("ACounterThatStands", "stall@20", Goes::Silent),
                    Frames("ACounterThatJumps", "jump@20+4294967290", Goes::On),
                    Frames("AFrameThatMoves", "move@20", Goes::On),
                    Frames("AConnectionThatComesBack", "lost@20+50", Goes::On),
                    Frames("AConnectionThatStaysAway", "lost@20", Goes::Silent),
                    Trouble{"AMapOfNone", "KINETREL_PDI_MAP", "0", Goes::Silent},
                    Trouble{"AMapOfAll", "KINETREL_PDI_MAP", "0xFFFFFFFF", Goes::On}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Stations, and trackers that come back -------------------------------------------------

TEST_F(LibertyProgram, WithAGapInTheMaskEveryStationIsPublishedAsItself) {
  Start({}, {"-s0xA"});
  ASSERT_TRUE(FramesPass(10)) << tracker_->error();
  EXPECT_EQ(block_.poses[0][1], 0.0F);
  EXPECT_EQ(block_.poses[1][1], 20.0F);  // y tells the station
  EXPECT_EQ(block_.poses[2][1], 0.0F);
  EXPECT_EQ(block_.poses[3][1], 40.0F);
  EXPECT_EQ(EndWithin(kTimeToEnd), 0);
}

// At 240 Hz the line would not carry two.
TEST_F(LibertyProgram, TwoStationsComeWholeAtTheRateThatTheLineCarries) {
  StartEmulator({"--stations=2"});
  Start({}, {"-s0x3"});
  ASSERT_TRUE(tracker_->ExpectError("Rate = 120 Hz")) << tracker_->error();
  ASSERT_TRUE(FramesPass(4));
  const auto ramp = [this] { return RampFrame(block_.poses[0][0], block_.poses[0][2]); };
  const std::uint64_t first = ramp();
  const int from = block_.frameCount;
  ASSERT_TRUE(FramesPass(400));
  // Each cycle is published twice, for each of its stations.
  const double frames = static_cast<double>(block_.frameCount - from) / 2;
  EXPECT_NEAR(frames, static_cast<double>(ramp() - first), kMayLose ? 200 : 1.5);
  EXPECT_EQ(EndWithin(kTimeToEnd), 0);
}

TEST_F(LibertyProgram, AnUnpluggedOneIsFollowedToItsNewPortAndSetAgain) {
  StartEmulator({"--stations=3"});
  Start({}, {"-s0x2", "-u0"});
  ASSERT_TRUE(FramesPass(10)) << tracker_->error();
  StopEmulator();
  ASSERT_TRUE(tracker_->ExpectError("The port of Polhemus Liberty has gone"));
  StartEmulator({"--stations=3"});
  ASSERT_TRUE(tracker_->ExpectError("Polhemus Liberty is back"));
  ASSERT_TRUE(FramesPass(10));
  EXPECT_NEAR(block_.poses[1][1], 20 / 2.54, 1e-4);  // station 2 alone, in inches
  EXPECT_EQ(block_.poses[0][1], 0.0F);
  EXPECT_EQ(EndWithin(kTimeToEnd), 0);
}

TEST_F(LibertyProgram, OneSwitchedOffAndOnIsStartedAnew) {
  StartEmulator({"--fault=restart@3s"});
  Start();
  ASSERT_TRUE(FramesPass(10)) << tracker_->error();
  ASSERT_TRUE(tracker_->ExpectError("Polhemus Liberty sends nothing usable"));
  ASSERT_TRUE(tracker_->ExpectError("Polhemus Liberty is back", 2 * kPatience));
  EXPECT_TRUE(FramesPass(10));
  EXPECT_EQ(EndWithin(kTimeToEnd), 0);
}

// At the worst moment: while it is being started anew and does not answer.
TEST_F(LibertyProgram, EndsInTimeWhileItsTrackerIsDeaf) {
  StartEmulator({"--fault=silence:100@3s"});
  Start();
  ASSERT_TRUE(tracker_->ExpectError("Polhemus Liberty sends nothing usable"));
  EXPECT_EQ(EndWithin(kTimeToEnd), 0);
}

}  // namespace
}  // namespace kinetrel::test

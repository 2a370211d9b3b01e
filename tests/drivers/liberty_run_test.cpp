// Whole runs of the Liberty in trouble: the substitute library with known motion or with an
// emulator on its line, the program, and a client. The runs without trouble are with the serial
// trackers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <optional>

#include "devices/pose.h"
#include "emulate/motion.h"
#include "tests/support/emulated_run.h"

namespace kinetrel::test {
using namespace emulate;
namespace {

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

  // Uses the emulator if one was started.
  void Start(Environment more = {}, Arguments arguments = {}) {
    Environment environment{{"KINETREL_PDI", KINETREL_PDI_SUBSTITUTE}};
    if (emulator_) {
      environment.push_back({"KINETREL_COM1", link_});
      environment.push_back({"KINETREL_PDI_SERIAL", "1"});
    }
    environment.insert(environment.end(), more.begin(), more.end());
    arguments.insert(arguments.begin(), "-p1");
    run_.emplace(10, arguments, environment);
  }
  bool ExpectError(const std::string& text, std::chrono::milliseconds patience = kPatience) {
    return run_->program().ExpectError(text, patience);
  }

  std::string link_ = "/tmp/kinetrel-liberty-" + std::to_string(::getpid());
  std::optional<ChildProcess> emulator_;
  std::optional<LibraryRun> run_;
};

// ---- A library that fails ------------------------------------------------------------------

class LibertyTrouble : public LibertyProgram, public testing::WithParamInterface<Trouble> {};

TEST_P(LibertyTrouble, DoesNotKeepTheProgramFromEndingInTime) {
  const Trouble& row = GetParam();
  const auto isFor = [&row](const char* name) { return std::string(row.name) == name; };
  Start({{row.variable, row.value}, {"KINETREL_PDI_BIT", isFor("ClearBITErrs") ? "4" : "0"}},
        {"-s0x5", "-k1", "-u0", "-h0,0,1", "-a1,0,0;0,1,0", isFor("RequestPno") ? "-z-" : "-z+"});
  if (row.outcome == Outcome::DoesNotStart) {
    EXPECT_EQ(run_->program().Wait(), 254) << run_->error();
    return;
  }
  ASSERT_TRUE(ExpectError("Running ...")) << run_->error();
  if (row.outcome == Outcome::FramesCome) {
    EXPECT_TRUE(run_->FramesPass(60));
  } else {
    EXPECT_TRUE(WaitUntil([this] {  // it is started anew
      const std::string& said = run_->error();
      return said.find("sends nothing usable") != said.npos || said.find("has gone") != said.npos;
    }));
  }
  EXPECT_EQ(run_->Stop(), 0);
}

Trouble Fails(const char* call, Outcome outcome) {
  return {call, "KINETREL_PDI_FAIL", call, outcome};
}

INSTANTIATE_TEST_SUITE_P(
    With, LibertyTrouble,
    testing::Values(
        Fails("CnxReady", Outcome::DoesNotStart), Fails("SetSerialIF", Outcome::FramesCome),
        Fails("DiscoverCnx", Outcome::DoesNotStart), Fails("Disconnect", Outcome::FramesCome),
        Fails("SetSDataList", Outcome::NoFrames), Fails("GetBITErrs", Outcome::FramesCome),
        Fails("ClearBITErrs", Outcome::FramesCome), Fails("GetStationMap", Outcome::FramesCome),
        Fails("SetStationMap", Outcome::FramesCome), Fails("MaxSensors", Outcome::FramesCome),
        Fails("StartContPno", Outcome::NoFrames), Fails("StopContPno", Outcome::FramesCome),
        Fails("RequestPno", Outcome::NoFrames), Fails("LastPnoPtr", Outcome::NoFrames),
        Fails("SetFrameRate", Outcome::FramesCome), Fails("GetFrameRate", Outcome::FramesCome),
        Fails("SetMetric", Outcome::FramesCome), Fails("SetSAlignment", Outcome::FramesCome),
        Fails("SetSyncEnabled", Outcome::FramesCome), Fails("SetSHemisphere", Outcome::FramesCome),
        Fails("SetSHemiTrack", Outcome::FramesCome)),
    [](const auto& row) { return std::string(row.param.name); });

Trouble Frames(const char* name, const char* fault, Outcome outcome) {
  return {name, "KINETREL_PDI_FRAMES", fault, outcome};
}

INSTANTIATE_TEST_SUITE_P(
    Of, LibertyTrouble,
    testing::Values(Frames("NullFrame", "null@20", Outcome::NoFrames),
                    Frames("HalfFrame", "short@20", Outcome::FramesCome),
                    Frames("FalseSize", "lie@20", Outcome::FramesCome),
                    Frames("StoppedCounter", "stall@20", Outcome::NoFrames),
                    Frames("JumpingCounter", "jump@20+4294967290", Outcome::FramesCome),
                    Frames("MovingFrame", "move@20", Outcome::FramesCome),
                    Frames("ConnectionLostForAWhile", "lost@20+50", Outcome::FramesCome),
                    Frames("ConnectionLost", "lost@20", Outcome::NoFrames),
                    Trouble{"MapWithoutStations", "KINETREL_PDI_MAP", "0", Outcome::FramesCome},
                    Trouble{"MapWithAllStations", "KINETREL_PDI_MAP", "0xFFFFFFFF",
                            Outcome::FramesCome}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Stations, and trackers that come back -------------------------------------------------

TEST_F(LibertyProgram, StationsKeepTheirNumbersWhenTheMaskHasGaps) {
  Start({}, {"-s0xA"});
  ASSERT_TRUE(run_->FramesPass(10)) << run_->error();
  EXPECT_EQ(run_->block().poses[0][1], 0.0F);
  EXPECT_EQ(run_->block().poses[1][1], 20.0F);  // y tells the station
  EXPECT_EQ(run_->block().poses[2][1], 0.0F);
  EXPECT_EQ(run_->block().poses[3][1], 40.0F);
  EXPECT_EQ(run_->Stop(), 0);
}

// The line does not carry two stations at 240 Hz.
TEST_F(LibertyProgram, TwoStationsUseTheRateThatTheLineCarries) {
  StartEmulator({"--stations=2"});
  Start({}, {"-s0x3"});
  ASSERT_TRUE(ExpectError("Rate = 120 Hz")) << run_->error();
  ASSERT_TRUE(run_->FramesPass(4));
  const auto ramp = [this] {
    return RampFrame(run_->block().poses[0][0], run_->block().poses[0][2]);
  };
  const std::uint64_t first = ramp();
  const int from = run_->block().frameCount;
  ASSERT_TRUE(run_->FramesPass(400));
  // Each cycle is published twice, for each of its stations.
  const double frames = static_cast<double>(run_->block().frameCount - from) / 2;
  EXPECT_NEAR(frames, static_cast<double>(ramp() - first), kMayLoseFrames ? 200 : 1.5);
  EXPECT_EQ(run_->Stop(), 0);
}

// The tracker leaves a sensor that was plugged in again inactive.
TEST_F(LibertyProgram, AnUnpluggedSensorStopsNoOtherAndComesBack) {
  StartEmulator({"--stations=2", "--unplug=2"});
  Start({}, {"-s0x3"});
  ASSERT_TRUE(run_->FramesPass(10)) << run_->error();
  ASSERT_TRUE(ExpectError("Sensor 2 of Polhemus Liberty sends nothing")) << run_->error();
  ASSERT_TRUE(run_->FramesPass(10));
  EXPECT_NE(RampFrame(run_->block().poses[0][0], run_->block().poses[0][2]), 0U);
  ASSERT_TRUE(ExpectError("Sensor 2 of Polhemus Liberty is back")) << run_->error();
  ASSERT_TRUE(run_->FramesPass(10));
  EXPECT_EQ(run_->error().find("nothing usable"), std::string::npos) << run_->error();
  EXPECT_EQ(run_->Stop(), 0);
}

TEST_F(LibertyProgram, AReplacedPortIsOpenedAndSettingsAreRestored) {
  StartEmulator({"--stations=3"});
  Start({}, {"-s0x2", "-u0"});
  ASSERT_TRUE(run_->FramesPass(10)) << run_->error();
  StopEmulator();
  ASSERT_TRUE(ExpectError("The port of Polhemus Liberty has gone"));
  StartEmulator({"--stations=3"});
  ASSERT_TRUE(ExpectError("Polhemus Liberty is back"));
  ASSERT_TRUE(run_->FramesPass(10));
  EXPECT_NEAR(run_->block().poses[1][1], 20 / 2.54, 1e-4);  // station 2 alone, in inches
  EXPECT_EQ(run_->block().poses[0][1], 0.0F);
  EXPECT_EQ(run_->Stop(), 0);
}

TEST_F(LibertyProgram, RestartsATrackerThatWasSwitchedOffAndOn) {
  StartEmulator({"--fault=restart@3s"});
  Start();
  ASSERT_TRUE(run_->FramesPass(10)) << run_->error();
  ASSERT_TRUE(ExpectError("Polhemus Liberty sends nothing usable"));
  ASSERT_TRUE(ExpectError("Polhemus Liberty is back", 2 * kPatience));
  EXPECT_TRUE(run_->FramesPass(10));
  EXPECT_EQ(run_->Stop(), 0);
}

// The worst moment: the driver restarts a tracker that does not answer.
TEST_F(LibertyProgram, EndsInTimeWhileTheTrackerIsSilent) {
  StartEmulator({"--fault=silence:100@3s"});
  Start();
  ASSERT_TRUE(ExpectError("Polhemus Liberty sends nothing usable"));
  EXPECT_EQ(run_->Stop(), 0);
}

}  // namespace
}  // namespace kinetrel::test

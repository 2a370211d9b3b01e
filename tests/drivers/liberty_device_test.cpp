// The Liberty driver with the substitute library: the calls that it makes, how it decodes frames,
// and whole runs in trouble, with known motion or with an emulator on the library's line. The runs
// without trouble are with the serial trackers.
#include "drivers/liberty_device.h"

#include <gtest/gtest.h>

#include <kinetrel/stream.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <optional>
#include <sstream>

#include "emulate/motion.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/emulated_run.h"
#include "tests/support/substitute_settings.h"

namespace kinetrel::test {
using namespace emulate;
namespace {

class LibertyDeviceTest : public testing::Test {
 protected:
  // The calls since the last look, separated by "; ".
  std::string Calls() {
    std::string all;
    for (const std::string& call : settings_.TakeCalls()) all += (all.empty() ? "" : "; ") + call;
    return all;
  }

  SubstituteSettings settings_{"KINETREL_PDI", KINETREL_PDI_SUBSTITUTE};
};

TEST_F(LibertyDeviceTest, BootFailsWithoutLibrary) {
  const SubstituteSettings missing("KINETREL_PDI", "/nowhere/libpdi.so");
  testing::internal::CaptureStderr();
  LibertyDevice device;
  EXPECT_EQ(device.OpenPortNumber(1, 115200), 1);
  EXPECT_EQ(device.Boot(0), 0);
  EXPECT_EQ(device.ReadFrame(nullptr), 0U);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("KINETREL_PDI may name the file"), std::string::npos) << said;
  EXPECT_EQ(said.find("cannot be loaded"), said.rfind("cannot be loaded")) << said;
}

TEST_F(LibertyDeviceTest, CallsTheLibraryInOrder) {
  settings_.Set("BIT", "4");
  settings_.Set("STATIONS", "0x5");
  StatusLog log;
  LibertyDevice device;
  device.SetStatusLog(&log);
  EXPECT_EQ(Calls(), "GetStationMap; SetSDataList -1: 2 4 9");
  device.OpenPortNumber(3, 57600);
  ASSERT_EQ(device.Boot(0), kBooted);
  EXPECT_EQ(Calls(),
            "SetSerialIF 3 6 0; DiscoverCnx; SetSDataList -1: 2 4 9; GetBITErrs; ClearBITErrs; "
            "GetStationMap");
  const char* const logged[] = {"Serial Connection: done",   "SetSDataList result: done",
                                "GetBITErrs result: done",   "BIT Errors: word 0: 0x4 ",
                                "ClearBITErrs result: done", "GetStationMap result: done",
                                "ActiveStationMap: 0x5"};
  const auto entries = log.Entries();
  ASSERT_EQ(entries.size(), std::size(logged));
  for (std::size_t i = 0; i < entries.size(); ++i) EXPECT_EQ(entries[i].text, logged[i]);

  EXPECT_EQ(device.SetSensorMask(0x4, 0), 0x4U);
  EXPECT_EQ(Calls(), "SetStationMap 0x4; GetStationMap; MaxSensors");
  EXPECT_EQ(device.SetComponentMask(7), 7U);
  EXPECT_EQ(Calls(), "GetStationMap; MaxSensors; SetSDataList -1: 2 4 7 9");
  const float zenith[3] = {0, 0, 1};
  EXPECT_EQ(device.SetHemisphere(-1, zenith), 1);
  EXPECT_EQ(Calls(), "SetSHemisphere 3: 0 0 1; SetSHemiTrack 3");
  EXPECT_EQ(device.SetProtocol(4), 4);
  EXPECT_EQ(device.GetFrameRate(), 120);
  EXPECT_EQ(device.SetSynchronization(2), 2);
  EXPECT_EQ(device.SetSynchronization(3), 0);
  EXPECT_EQ(device.SetUnits(3), 0);
  EXPECT_EQ(device.SetUnits(2), 2);
  EXPECT_EQ(device.GetUnits(), 1);
  EXPECT_EQ(Calls(), "SetFrameRate 3; GetFrameRate; SetSyncEnabled 1; SetMetric 1");
  const float quarterTurn[6] = {1, 2, 3, 1.57079632F, 0, 0};
  EXPECT_EQ(device.SetAlignmentPose(1, nullptr), 0);
  EXPECT_NE(device.SetAlignmentPose(1, quarterTurn), 0);
  std::istringstream aligned(Calls().substr(std::strlen("SetSAlignment 1:")));
  for (const double right : {1, 2, 3, 0, 1, 0, -1, 0, 0}) {
    double value = 77;
    aligned >> value;
    EXPECT_NEAR(value, right, 1e-6);
  }
  EXPECT_NE(device.ReadFrame(nullptr), 0U);
  device.SetUnits(0);  // a setting ends the stream, and the next frame starts it again
  EXPECT_NE(device.ReadFrame(nullptr), 0U);
  EXPECT_EQ(device.ClosePort(), 0);
  EXPECT_EQ(Calls(), "StartContPno; StopContPno; SetMetric 0; StartContPno; Disconnect");
  EXPECT_EQ(device.ReadFrame(nullptr), 0U);
}

TEST_F(LibertyDeviceTest, RefusedRateKeepsTheOldOne) {
  settings_.Set("FAIL", "SetFrameRate@2");
  LibertyDevice device;
  device.Boot(0);
  EXPECT_EQ(device.SetProtocol(4), 4);
  EXPECT_EQ(device.SetProtocol(5), 5);
  char text[64] = {};
  EXPECT_EQ(device.GetProtocolText(text, sizeof text), 4);
  EXPECT_STREQ(text, "4: 120 Hz");
}

TEST_F(LibertyDeviceTest, DeliversTheMotionOfEveryStationWithItsOffset) {
  settings_.Set("STATIONS", "0x8003");
  LibertyDevice device;
  device.Boot(0);
  device.SetSensorMask(0xFFFFFFFF, 0);
  device.SetComponentMask(7);
  device.SetSensorOffsetComponent(-1, 1, 100);
  double when = 0;
  ASSERT_EQ(device.ReadFrame(&when), 0x8003U);
  EXPECT_GT(when, 0.0);
  EXPECT_EQ(AllocationsOf([&] { EXPECT_NE(device.ReadFrame(&when), 0U); }), 0);
  const int stations[] = {1, 2, 16};
  for (int i = 0; i < 3; ++i) {
    const float* const pose = device.GetSensorPose(i);
    ASSERT_NE(pose, nullptr);
    const auto frame = RampFrame(pose[0], pose[2]);
    const MotionPose ramp = MakeRamp()->At(static_cast<unsigned>(stations[i] - 1), frame, 0);
    EXPECT_NEAR(pose[0], ramp.x, 1e-4);
    EXPECT_NEAR(pose[1], ramp.y + 100, 1e-4);
    EXPECT_NEAR(pose[3], ramp.azimuth * kRadiansPerDegree, 1e-5);
    EXPECT_NEAR(pose[4], ramp.elevation * kRadiansPerDegree, 1e-5);
    const Quaternion turned = EulerToQuaternion(pose + 3);
    const float* const quaternion = device.GetSensorQuaternion(i);
    for (std::size_t k = 0; k < 4; ++k) EXPECT_NEAR(quaternion[k], turned[k], 1e-5);
  }
  EXPECT_EQ(device.GetSensorEuler(3), nullptr);
  EXPECT_EQ(device.GetSensorPosition(-1), nullptr);
}

// The library keeps 64 frames. Those of the first 100 ms, during which the driver sleeps, are old.
TEST_F(LibertyDeviceTest, AStreamBeginsWithANewFrame) {
  LibertyDevice device;
  device.Boot(0);
  const auto frame = [&] {
    EXPECT_NE(device.ReadFrame(nullptr), 0U);
    const float* const place = device.GetSensorPosition(0);
    return place != nullptr ? RampFrame(place[0], place[2]) : 0;
  };
  const std::uint64_t first = frame();
  EXPECT_GE(first, 24U);
  device.SetUnits(1);  // ends the stream
  EXPECT_GE(frame(), first + 24);
}

TEST_F(LibertyDeviceTest, RequestsEachFrameWhenPolled) {
  LibertyDevice device;
  device.Boot(0);
  device.SetSensorMask(1, 0);
  device.Poll();
  Calls();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(device.ReadFrame(nullptr), 1U);
  EXPECT_EQ(Calls(), "");  // no continuous output
  device.StartContinuous();
  EXPECT_EQ(Calls(), "StartContPno");
}

// ---- Whole runs ----------------------------------------------------------------------------

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

TEST(LibertyFilters, BridgeAnUnpluggedSensorForTheirTime) {
  EmulatedRun run("liberty", 10, {"--stations=2", "--unplug=2"},
                  {"-s0x3", "--filter", "dropout:time-s=0.7"},
                  {{"KINETREL_PDI", KINETREL_PDI_SUBSTITUTE}, {"KINETREL_PDI_SERIAL", "1"}});
  kinetrel_stream stream;
  ASSERT_EQ(kinetrel_stream_open(&stream, run.slot(), 20'000), kinetrel_stream_ok);
  std::int64_t sent = 0;  // ns; of the newest record that the device sent
  int held = 0;
  int invalid = 0;
  double longest = 0.0;
  bool back = false;
  while (!back) {
    kinetrel_record record;
    kinetrel_device_pose own;
    ASSERT_EQ(kinetrel_stream_next(&stream, &record, 20'000), kinetrel_stream_ok);
    if (record.sensor != 1) {
      EXPECT_NE(record.flags & kinetrel_position_valid, 0U) << "the other one goes on";
      continue;
    }
    ASSERT_EQ(kinetrel_stream_device_pose(&stream, &record, &own), kinetrel_stream_ok);
    if ((own.flags & kinetrel_position_valid) != 0) {
      back = invalid > 0;
      sent = record.sample_ns;
    } else if ((record.flags & kinetrel_position_valid) != 0) {
      ++held;
      longest = std::max(longest, static_cast<double>(record.sample_ns - sent) * 1e-9);
    } else {
      ++invalid;
    }
  }
  EXPECT_GT(held, 10);
  EXPECT_LE(longest, 0.7);
  EXPECT_EQ(invalid, 1) << "said once";
  kinetrel_stream_close(&stream);
  EXPECT_EQ(run.Stop(), 0);
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

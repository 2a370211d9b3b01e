// The Liberty driver with the substitute library: the calls that it makes, how it decodes frames,
// and that no answer of a library harms it.
#include "drivers/liberty_device.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>

#include "emulate/motion.h"
#include "tests/support/allocation_counter.h"
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

}  // namespace
}  // namespace kinetrel::test

#include "devices/tracker_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/support/pseudo_terminal.h"

namespace kinetrel {
namespace {

using test::PseudoTerminal;

// A device that overrides only the pure virtual operations.
class PlainDevice final : public TrackerDevice {
 public:
  BootResult Boot(int) override { return booted_ = true; }
  int QueryStatus(char*, int) override { return 0; }
  unsigned ReadFrame(double*) override { return 0; }

  void SetModeBytes(char continuous, char poll, char stop, char prePoll) {
    continuousByte_ = continuous;
    pollByte_ = poll;
    stopByte_ = stop;
    prePollByte_ = prePoll;
  }
  void SetStatusWord(std::uint32_t word) { statusWord_ = word; }
  void SetProductCode(int code) { productCode_ = code; }
  using TrackerDevice::channels_;
};

bool CopiesName(PlainDevice& device, int size, const std::string& expected) {
  std::string text(12, '#');
  return device.GetDeviceType(text.data(), size) == 0 && text == expected;
}

bool CopiesProtocol(PlainDevice& device, int size, const std::string& expected) {
  std::string text(6, '#');
  device.SetProtocol(1234);
  return device.GetProtocolText(text.data(), size) == 1234 && text == expected;
}

bool Empties(PlainDevice& device, char* text, int size) {
  return !device.GetControlString(text, size) && (text == nullptr || *text == '\0');
}

// ---- Defaults ------------------------------------------------------------------------------

constexpr float kXyz[3] = {1, 2, 3};
constexpr float kPose[6] = {1, 2, 3, 4, 5, 6};

struct Default {
  const char* operation;
  bool (*holds)(PlainDevice& d);  // on a device with 2 sensors, closed and not booted
};

class TrackerDeviceDefault : public testing::TestWithParam<Default> {};

TEST_P(TrackerDeviceDefault, GivesADefiniteAnswer) {
  PlainDevice device;
  ASSERT_TRUE(device.AllocateSensors(2));
  EXPECT_TRUE(GetParam().holds(device));
}

using D = PlainDevice;

// Defaults that only return a constant are left out.
constexpr Default kDefaults[] = {
    {"OpenPort", [](D& d) { return d.OpenPort("~x", 9600) == 1 && d.OpenPort(nullptr, 1) == 0; }},
    {"SetSensorMask",
     [](D& d) {
       return d.SetSensorMask(0, 0) == 1 && d.SetSensorMask(5, 2) == 1 &&
              d.SetSensorMask(6, 0) == 6 && d.GetSensorMask() == 6;
     }},
    {"SetUnits", [](D& d) { return d.SetUnits(3) == 3 && d.GetUnits() == 3; }},
    {"SetProtocol", [](D& d) { return d.SetProtocol(7) == 7 && d.GetProtocol() == 7; }},
    {"SetComponentMask",
     [](D& d) { return d.SetComponentMask(4) == 4 && d.GetComponentMask() == 4; }},
    {"IsProductUnknown",
     [](D& d) {
       const bool fresh = d.IsProductUnknown();
       d.SetProductCode(0);
       return fresh && !d.IsProductUnknown();
     }},
    {"IsBooted", [](D& d) { return !d.IsBooted() && d.Boot(0) == kBooted && d.IsBooted(); }},
    {"GetDeviceType",
     [](D& d) {
       return d.GetDeviceType(nullptr, 5) == 0 && CopiesName(d, 12, {"No Device\0##", 12}) &&
              CopiesName(d, 9, "No Device###") && CopiesName(d, 2, "No##########") &&
              CopiesName(d, -1, "############");
     }},
    {"GetStatusCode",
     [](D& d) {
       const bool fresh = d.GetStatusCode() == 0;
       d.SetStatusWord(0x7777C001);
       return fresh && d.GetStatusCode() == 0xC001 - 0x10000;
     }},
    {"GetProtocolText",
     [](D& d) {
       return d.GetProtocolText(nullptr, 9) == 0 && CopiesProtocol(d, 6, {"1234\0#", 6}) &&
              CopiesProtocol(d, 3, "123###");
     }},
    {"GetActiveSensorCount",
     [](D& d) { return d.SetSensorMask(0xFFFFFFFE, 0) != 0 && d.GetActiveSensorCount() == 1; }},
    {"GetFrameRate",
     [](D& d) {
       return d.GetFrameRate() == 120 && d.SetSensorMask(3, 0) == 3 && d.GetFrameRate() == 60 &&
              d.SetSensorMask(4, 0) == 4 && d.GetFrameRate() == 0;
     }},
    {"GetControlString",
     [](D& d) {
       char text[2] = "x";
       return !d.GetControlString(text, 0) && *text == 'x' && Empties(d, text, 2) &&
              Empties(d, nullptr, 2);
     }},
    {"GetSensorOffset", [](D& d) { return d.GetSensorOffset(1) && !d.GetSensorOffset(2); }},
    {"GetSensorPose", [](D& d) { return d.GetSensorPose(1) && !d.GetSensorPose(-1); }},
    {"GetSensorPosition",
     [](D& d) { return d.GetSensorPosition(1) == d.GetSensorPose(1) && !d.GetSensorPosition(2); }},
    {"GetSensorEuler",
     [](D& d) { return d.GetSensorEuler(1) == d.GetSensorPose(1) + 3 && !d.GetSensorEuler(-1); }},
    {"GetSensorQuaternion",
     [](D& d) {
       const float* const q = d.GetSensorQuaternion(1);
       return std::equal(q, q + 4, kIdentityQuaternion.begin()) && !d.GetSensorQuaternion(2);
     }},
};

INSTANTIATE_TEST_SUITE_P(Of, TrackerDeviceDefault, testing::ValuesIn(kDefaults),
                         [](const auto& row) { return std::string(row.param.operation); });

// ---- Stations and records ------------------------------------------------------------------

TEST(TrackerDevice, RecordsAreMadeForOneTo256Sensors) {
  PlainDevice device;
  EXPECT_TRUE(device.AllocateSensors(256));
  float* const last = device.GetSensorPose(255);
  ASSERT_NE(last, nullptr);
  last[5] = 7;
  for (const unsigned bad : {0U, 257U, 0xFFFFFFFFU}) {
    EXPECT_FALSE(device.AllocateSensors(bad)) << bad;
    EXPECT_EQ(device.GetSensorPose(255), last);
    EXPECT_EQ(last[5], 7);
  }
  device.SetSensorMask(0xFFFFFFFF, 0);
  EXPECT_EQ(device.GetActiveSensorCount(), 32);  // the mask has 32 bits

  EXPECT_TRUE(device.AllocateSensors(256));
  EXPECT_EQ(device.GetSensorPose(255)[5], 0);
  device.FreeSensors();
  EXPECT_EQ(device.GetSensorCount(), 0);
  EXPECT_EQ(device.GetSensorOffset(0), nullptr);
}

TEST(TrackerDevice, OffsetsAreSetForOneSensorOrForAll) {
  PlainDevice device;
  ASSERT_TRUE(device.AllocateSensors(3));
  EXPECT_TRUE(device.SetSensorOffset(-1, kPose));
  EXPECT_TRUE(device.SetSensorPositionOffset(1, kXyz));
  EXPECT_TRUE(device.SetSensorOffsetComponent(-1, 5, -3.14159));
  EXPECT_TRUE(device.SetSensorOffsetComponent(2, 0, 9));
  for (int sensor = 0; sensor < 3; ++sensor) {
    const float* const offset = device.GetSensorOffset(sensor);
    EXPECT_EQ(offset[0], sensor == 2 ? 9.0F : 1.0F);
    EXPECT_EQ(offset[4], 5.0F);
    EXPECT_EQ(offset[5], -3.14159F);
  }
  EXPECT_FALSE(device.SetSensorOffsetComponent(0, 6, 1.0));
  EXPECT_FALSE(device.SetSensorOffsetComponent(-1, 6, 1.0));
  EXPECT_FALSE(device.SetSensorOffsetComponent(3, 0, 1.0));
  EXPECT_FALSE(device.SetSensorPositionOffset(3, kXyz));
  EXPECT_FALSE(device.SetSensorOffset(3, kPose));
  device.FreeSensors();
  EXPECT_TRUE(device.SetSensorOffset(-1, kPose));  // no sensors: succeeds
  EXPECT_FALSE(device.SetSensorOffset(0, kPose));
}

// ---- Mode bytes ----------------------------------------------------------------------------

TEST(TrackerOnALine, APollStopsAStreamOnce) {
  PseudoTerminal far;
  PlainDevice device;
  ASSERT_EQ(device.OpenPort(far.path().c_str(), 9600), 1);
  device.SetModeBytes('C', 'P', 'c', 0);
  device.Boot(0);
  device.Poll();
  device.StartContinuous();
  device.Poll();
  device.Poll();
  device.Write("|", 1);
  EXPECT_TRUE(far.Expect("|"));
  EXPECT_EQ(far.Received(), "PCcPP|");
}

// ---- Time ----------------------------------------------------------------------------------

TEST(TrackerDevice, SecondsRunFromTheTimeOrigin) {
  PlainDevice device;
  const double first = device.ElapsedSeconds();
  EXPECT_GE(first, 0);
  device.SetTimeOrigin(ClockTicks() - 10 * ClockTicksPerSecond());
  EXPECT_GE(device.ElapsedSeconds(), 10);
  EXPECT_LT(device.ElapsedSeconds(), 30);
}

}  // namespace
}  // namespace kinetrel

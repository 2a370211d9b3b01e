// The Liberty and the FASTRAK on USB: the real libusb and the real drivers against emulated units.
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "devices/polhemus_usb.h"
#include "drivers/fastrak_device.h"
#include "drivers/liberty_device.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/emulated_run.h"
#include "tests/usb/usb_bench.h"

namespace kinetrel::test {
using namespace emulate;
namespace {

constexpr int kBaud = 115200;

std::uint64_t FrameOf(LibertyDevice& device) {
  const float* const pose = device.GetSensorPose(0);
  return pose != nullptr ? RampFrame(pose[0], pose[2]) : 0;
}

bool ReadOne(LibertyDevice& device) {
  for (int i = 0; i < 8 && !device.ConnectionLost(); ++i) {
    if (device.ReadFrame(nullptr) != 0) return true;
  }
  return false;
}

// ---- Finding the unit ----------------------------------------------------------------------

struct Found {
  const char* name;
  std::vector<UsbIdentity> onTheBus;  // at ports 1, 2 ...
  const char* asked;
  Error error;
  const char* why;
};

class UsbSearch : public OnUsb, public testing::WithParamInterface<Found> {};

TEST_P(UsbSearch, SaysWhatIsThere) {
  std::vector<std::unique_ptr<UsbDevicePort>> ports;
  for (const UsbIdentity& identity : GetParam().onTheBus) {
    auto port = bus().Attach(static_cast<unsigned>(ports.size()) + 1, identity);
    ASSERT_TRUE(port.Ok());
    ports.push_back(std::move(*port));
  }
  std::string why;
  const auto unit = OpenPolhemusUnit(PolhemusFamily::Liberty, GetParam().asked, why);
  EXPECT_EQ(unit.status().error, GetParam().error);
  EXPECT_NE(why.find(GetParam().why), std::string::npos) << why;
}

INSTANTIATE_TEST_SUITE_P(
    On, UsbSearch,
    testing::Values(
        Found{"EmptyBus",
              {},
              "usb",
              Error::NotFound,
              "looked for 0f44:ff20, 0f44:ff12, 0f44:ef20, 0f44:ef12; no device is on USB"},
        Found{"OtherDevices",
              {With(0x046D, 0xC52B)},
              "usb",
              Error::NotFound,
              "on USB: usb:1-1 046d:c52b"},
        Found{"BusWithOneLiberty", {With(0x046D, 0xC52B), kLiberty}, "usb", Error::None, ""},
        Found{"TwoUnits",
              {kLiberty, With(0x0F44, 0xEF20)},
              "usb",
              Error::Invalid,
              "usb:1-1 Polhemus Liberty 0f44:ff20, usb:1-2 Polhemus Patriot 0f44:ef20; choose one "
              "with -p usb:1-1"},
        Found{"TwoUnitsAndAName", {kLiberty, With(0x0F44, 0xEF20)}, "usb:1-2", Error::None, ""},
        Found{"OtherPort", {kLiberty}, "usb:1-2", Error::NotFound, "usb:1-2: no usable unit"},
        Found{"WaitsForFirmware",
              {With(0x0F44, 0xFF21)},
              "usb",
              Error::NotFound,
              "usb:1-1 is a Polhemus Liberty that waits for its firmware"},
        Found{"OtherFamily",
              {With(0x0F44, 0x0003)},
              "usb",
              Error::NotFound,
              "usb:1-1 is a Polhemus FASTRAK, which is type 2"},
        Found{"UnknownTracker",
              {With(0x0F44, 0xBF01)},
              "usb",
              Error::NotFound,
              "usb:1-1 is a Polhemus Viper, which Kinetrel does not support"},
        Found{"OtherEndpoints",
              {{0x0F44, 0xFF20, true, {{0x81, false}, {0x01, false}}, 0x81}},
              "usb",
              Error::Invalid,
              "endpoints"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(OnUsb, AUnitIsUsedByOneProgramOnly) {
  UsbIdentity identity = kLiberty;
  identity.usedByDriver = true;
  Unit unit(bus(), 1, Liberty(1), identity);
  std::string why;
  {
    const auto first = OpenPolhemusUnit(PolhemusFamily::Liberty, "usb", why);
    ASSERT_TRUE(first.Ok()) << why;
    EXPECT_FALSE(unit.port().IsUsedByDriver());
    EXPECT_EQ(OpenPolhemusUnit(PolhemusFamily::Liberty, "usb", why).status().error, Error::Busy);
    EXPECT_NE(why.find("in use by another program"), std::string::npos) << why;
  }
  EXPECT_TRUE(unit.port().IsUsedByDriver());  // it was given back
}

// ---- Frames --------------------------------------------------------------------------------

TEST_F(OnUsb, SixteenStationsComeAtFullRateWithoutALostFrame) {
  const Unit unit(bus(), 1, Liberty(16));
  LibertyDevice device;
  ASSERT_EQ(device.OpenPortNumber(kUsbPortNumber, kBaud), 1);
  ASSERT_EQ(device.Boot(0), kBooted);
  EXPECT_EQ(device.GetPortNumber(), kUsbPortNumber);
  ASSERT_EQ(device.SetSensorMask(0xFFFF, 0), 0xFFFFU);
  EXPECT_EQ(device.GetFrameRate(), 240);
  ASSERT_TRUE(ReadOne(device));
  const std::uint64_t first = FrameOf(device);
  constexpr std::uint64_t kFrames = 480;
  unsigned allocations = 0;
  for (std::uint64_t i = 1; i <= kFrames; ++i) {
    unsigned stations = 0;
    allocations +=
        static_cast<unsigned>(AllocationsOf([&] { stations = device.ReadFrame(nullptr); }));
    ASSERT_EQ(stations, 0xFFFFU) << "frame " << i;
    if (!kMayLoseFrames) {
      ASSERT_EQ(FrameOf(device), first + i);
    }
  }
  EXPECT_EQ(allocations, 0U);
}

// Rests, and moves 50 cm every half second.
class Steps final : public Motion {
  MotionPose At(unsigned, std::uint64_t, double seconds) const override {
    return {.x = static_cast<std::uint64_t>(2 * seconds) % 2 == 0 ? 0.0 : 50.0};
  }
};

TEST_F(OnUsb, APolledFrameThatHasComeIsNotWaitedForAgain) {
  LibertySettings settings;
  settings.plugged = 1;
  const Unit unit(bus(), 1, std::make_unique<LibertyEmulator>(settings, std::make_shared<Steps>()));
  LibertyDevice device;
  device.OpenPort("usb", kBaud);
  ASSERT_EQ(device.Boot(0), kBooted);
  device.Poll();
  double quickest = 10;  // s
  int frames = 0;        // also of two requests within one cycle
  const Deadline end(Milliseconds(20'000));
  for (int held = 0; held < 4 && !end.Passed();) {
    const double before = device.ElapsedSeconds();
    if (device.ReadFrame(nullptr) != 0) {
      ++frames;
      continue;
    }
    quickest = std::min(quickest, device.ElapsedSeconds() - before);
    ++held;
  }
  EXPECT_LT(quickest, 0.4);  // a frame is waited for 0.5 s
  EXPECT_GT(frames, 20);
}

// In transfers of that many bytes, records are cut at every place over time. So many small
// transfers may be too much for the machine that plays them; then frames are left out, whole.
class UsbSplits : public OnUsb, public testing::WithParamInterface<std::size_t> {};

TEST_P(UsbSplits, FramesAreWhole) {
  Unit unit(bus(), 1, Liberty(2), GetParam() % 2 == 0 ? OlderLiberty() : kLiberty);
  unit.port().SetLongestTransfer(GetParam());
  LibertyDevice device;
  ASSERT_EQ(device.OpenPort("usb:1-1", kBaud), 1);
  ASSERT_EQ(device.Boot(0), kBooted);
  std::uint64_t last = 0;
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(device.ReadFrame(nullptr), 0x3U);
    const std::uint64_t frame = FrameOf(device);
    EXPECT_GT(frame, last);
    const float* const second = device.GetSensorPose(1);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(RampFrame(second[0], second[2]), frame);
    last = frame;
  }
}

INSTANTIATE_TEST_SUITE_P(Of, UsbSplits, testing::Values(5, 8, 37, 0),
                         [](const auto& row) { return "Bytes" + std::to_string(row.param); });

// ---- Trouble -------------------------------------------------------------------------------

TEST_F(OnUsb, AStalledPipeIsReset) {
  Unit unit(bus(), 1, Liberty(16));
  LibertyDevice device;
  ASSERT_EQ(device.OpenPort("usb", kBaud), 1);
  ASSERT_EQ(device.Boot(0), kBooted);
  for (int i = 0; i < 5; ++i) {
    unit.port().StallNext();
    EXPECT_TRUE(WaitUntil([&] { return ReadOne(device); }));
    EXPECT_FALSE(device.ConnectionLost());
    const std::uint64_t before = FrameOf(device);
    for (int k = 0; k < 20; ++k) EXPECT_TRUE(ReadOne(device));
    EXPECT_GE(FrameOf(device), before + 20);
  }
}

TEST_F(OnUsb, SilenceIsNotALostConnection) {
  Unit unit(bus(), 1, Liberty(1));
  LibertyDevice device;
  device.OpenPort("usb", kBaud);
  ASSERT_EQ(device.Boot(0), kBooted);
  ASSERT_TRUE(ReadOne(device));
  unit.emulator().Strike({FaultKind::Silence, 2.0});
  EXPECT_TRUE(WaitUntil([&] { return device.ReadFrame(nullptr) == 0; }));
  EXPECT_FALSE(device.ConnectionLost());
}

TEST_F(OnUsb, AnUnplugWithinAFrameIsALostConnectionAndOnlyTheSameUnitReturns) {
  auto unit = std::make_unique<Unit>(bus(), 1, Liberty(16, "1"));
  unit->port().SetLongestTransfer(100);
  LibertyDevice device;
  device.OpenPort("usb", kBaud);
  ASSERT_EQ(device.Boot(0), kBooted);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(ReadOne(device));
  unit->emulator().Unplug();
  EXPECT_TRUE(WaitUntil([&] { return device.ReadFrame(nullptr) == 0 && device.ConnectionLost(); }));
  const auto boots = [&device] {
    device.ClosePort();
    return device.OpenPort("usb", kBaud) == 1 && device.Boot(0) == kBooted;
  };
  testing::internal::CaptureStderr();
  EXPECT_FALSE(boots());
  unit.reset();
  unit = std::make_unique<Unit>(bus(), 1, Liberty(16, "2"));
  EXPECT_FALSE(boots());
  unit.reset();
  unit = std::make_unique<Unit>(bus(), 1, Liberty(16, "1"));
  const Unit elsewhere(bus(), 2, Liberty(16, "1"));
  EXPECT_TRUE(boots());
  EXPECT_TRUE(ReadOne(device));
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("no device is on USB"), std::string::npos) << said;
  EXPECT_NE(said.find("Another tracker answers on Polhemus Liberty at usb:1-1"), std::string::npos)
      << said;
}

// ---- FASTRAK -------------------------------------------------------------------------------

struct FastrakUnit {
  const char* name;
  UsbIdentity identity;
};

class FastrakOnUsb : public OnUsb, public testing::WithParamInterface<FastrakUnit> {};

TEST_P(FastrakOnUsb, IsTheSerialDriverOnAnotherLine) {
  FastrakSettings settings;
  settings.receivers = 2;
  const auto plugged = [&](unsigned port) {
    return std::make_unique<Unit>(
        bus(), port, std::make_unique<FastrakEmulator>(settings, MakeRamp()), GetParam().identity);
  };
  auto unit = plugged(1);
  FastrakDevice device;
  device.SetCrLf(0);
  ASSERT_EQ(device.OpenPortNumber(kUsbPortNumber, kBaud), 1) << device.openFailure();
  ASSERT_EQ(device.Boot(0), kBooted);
  EXPECT_STREQ(device.GetDeviceName(), "FasTRAK");
  device.SetSensorMask(3, 2);
  device.StartContinuous();
  int frames = 0;
  ASSERT_TRUE(WaitUntil([&] { return (frames += device.ReadFrame(nullptr) == 3 ? 1 : 0) == 50; }));
  EXPECT_FALSE(device.LineLost());
  // From now on "usb" is this unit.
  device.ClosePort();
  const auto other = plugged(2);
  EXPECT_EQ(device.OpenPortNumber(kUsbPortNumber, kBaud), 1) << device.openFailure();
  device.ClosePort();
  unit.reset();
  EXPECT_EQ(device.OpenPortNumber(kUsbPortNumber, kBaud), 0);
  EXPECT_NE(device.openFailure().find("usb:1-1: no usable unit"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Unit, FastrakOnUsb,
    testing::Values(
        FastrakUnit{"Newer", {0x0F44, 0x0003, false, {{0x02, false}, {0x84, false}}, 0x84}},
        FastrakUnit{"OlderThroughItsInterruptEndpoint",
                    {0x0F44, 0x0002, false, {{0x82, false}, {0x02, false}, {0x84, true}}, 0x84}}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Whole runs ----------------------------------------------------------------------------

TEST_F(OnUsb, TwoRunsUseAUnitEachAndFollowItThroughAnUnplug) {
  Unit one(bus(), 1, Liberty(16, "1"));
  Unit two(bus(), 2, Liberty(2, "2"));
  LibraryRun first(10, {"-p", "usb:1-1", "-s0xFFFF"});
  LibraryRun second(10, {"-p", "usb:1-2", "-s0x3"});
  ASSERT_TRUE(first.program().ExpectError("USB port open")) << first.error();
  ASSERT_TRUE(first.FramesPass(100)) << first.error();
  ASSERT_TRUE(second.FramesPass(100)) << second.error();
  EXPECT_NE(first.block().poses[15][1], 0.0F);
  one.emulator().Unplug();
  ASSERT_TRUE(first.program().ExpectError("The port of Polhemus Liberty has gone"));
  one.emulator().Plug();
  ASSERT_TRUE(first.program().ExpectError("Polhemus Liberty is back")) << first.error();
  ASSERT_TRUE(first.FramesPass(100));
  ASSERT_TRUE(second.FramesPass(100)) << second.error();
  EXPECT_EQ(second.error().find("gone"), std::string::npos) << second.error();
  EXPECT_EQ(first.Stop(), 0);
  EXPECT_EQ(second.Stop(), 0);
}

TEST_F(OnUsb, AMissingRightNamesTheRule) {
  const Unit unit(bus(), 1, Liberty(1));
  const std::filesystem::path root(bus().Environment()[1].second);
  std::filesystem::permissions(root, std::filesystem::perms::all);
  for (const auto& node : std::filesystem::directory_iterator(root / "dev/bus/usb/001")) {
    std::filesystem::permissions(node, std::filesystem::perms::none);
  }
  // umockdev ends a process that cannot reach its socket.
  for (const auto& socket : std::filesystem::directory_iterator(root / "ioctl/dev/bus/usb/001")) {
    std::filesystem::permissions(socket, std::filesystem::perms::all);
  }
  const uid_t before = ::geteuid();
  if (before == 0) {  // root has every right
    ASSERT_EQ(::seteuid(65534), 0);
  }
  std::string why;
  const auto denied = OpenPolhemusUnit(PolhemusFamily::Liberty, "usb", why);
  ASSERT_EQ(::seteuid(before), 0);
  EXPECT_EQ(denied.status().error, Error::Denied);
  EXPECT_NE(why.find("permission denied: install the udev rule 70-kinetrel.rules"), why.npos)
      << why;
}

}  // namespace
}  // namespace kinetrel::test

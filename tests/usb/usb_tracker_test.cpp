// The Liberty and the FASTRAK on USB: the real libusb and the real drivers against emulated units.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>

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
  PolhemusFamily family = PolhemusFamily::Liberty;
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
  const auto unit = OpenPolhemusUnit(GetParam().family, GetParam().asked, why);
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
        Found{"FastrakWaitsForFirmware",
              {With(0x0F44, 0x0001)},
              "usb",
              Error::NotFound,
              "usb:1-1 is a Polhemus FASTRAK (older) that waits for its firmware",
              PolhemusFamily::Fastrak},
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

struct Splits {
  const char* name;
  UsbIdentity identity;
};

class UsbSplits : public OnUsb, public testing::WithParamInterface<Splits> {};

// Every record is cut at each of its places over time. So many small transfers may be too much for
// the machine that plays them; then frames are left out, whole.
TEST_P(UsbSplits, FramesThatAreCutAtAnyPlaceAreWhole) {
  constexpr std::size_t kFrameSize = 72;  // bytes, of two stations
  Unit unit(bus(), 1, Liberty(2), GetParam().identity);
  LibertyDevice device;
  ASSERT_EQ(device.OpenPort("usb:1-1", kBaud), 1);
  ASSERT_EQ(device.Boot(0), kBooted);
  std::uint64_t last = 0;
  // On a busy machine a frame may fail or lack a station; those that come are right.
  int failed = 0;
  const auto readWhole = [&] {
    if (device.ReadFrame(nullptr) != 0x3U) {
      ++failed;
      return false;
    }
    const std::uint64_t frame = FrameOf(device);
    EXPECT_GT(frame, last);
    const float* const second = device.GetSensorPose(1);
    EXPECT_EQ(second != nullptr ? RampFrame(second[0], second[2]) : 0, frame);
    last = frame;
    return true;
  };
  for (std::size_t size = 1; size <= kFrameSize; ++size) {
    unit.port().SetLongestTransfer(size);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(WaitUntil(readWhole)) << size;
  }
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(WaitUntil(readWhole));  // those that still wait
  if (!kMayLoseFrames) {
    EXPECT_LE(failed, 30);
  }
}

INSTANTIATE_TEST_SUITE_P(Of, UsbSplits,
                         testing::Values(Splits{"HighSpeed", kLiberty},
                                         Splits{"FullSpeed", OlderLiberty()}),
                         [](const auto& row) { return std::string(row.param.name); });

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

TEST_F(OnUsb, AStalledCommandIsSentAgain) {
  Unit unit(bus(), 1, Liberty(2));
  LibertyDevice device;
  ASSERT_EQ(device.OpenPort("usb", kBaud), 1);
  unit.port().StallNextCommand();
  ASSERT_EQ(device.Boot(0), kBooted);
  ASSERT_TRUE(ReadOne(device));
  for (int i = 0; i < 3; ++i) {  // the command that starts the stream
    device.Poll();
    unit.port().StallNextCommand();
    device.StartContinuous();
    EXPECT_TRUE(ReadOne(device));
    EXPECT_FALSE(device.ConnectionLost());
  }
}

class UsbUnplug : public OnUsb, public testing::WithParamInterface<std::size_t> {};

TEST_P(UsbUnplug, WithinAFrameLosesTheConnectionAndNothingOfItIsReadLater) {
  Unit unit(bus(), 1, Liberty(2));
  LibertyDevice device;
  device.OpenPort("usb", kBaud);
  ASSERT_EQ(device.Boot(0), kBooted);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(ReadOne(device));
  unit.port().UnplugAfter(GetParam());
  unsigned last = 0;
  EXPECT_TRUE(WaitUntil([&] {
    if (const unsigned stations = device.ReadFrame(nullptr); stations != 0) last = stations;
    return device.ConnectionLost();
  }));
  if (GetParam() < 36) {
    EXPECT_NE(last, 0x1U);  // the first station's record is cut
  }
  EXPECT_NE(last, 0x2U);
  unit.emulator().Plug();
  EXPECT_TRUE(WaitUntil([&] {
    device.ClosePort();
    return device.OpenPort("usb", kBaud) == 1 && device.Boot(0) == kBooted;
  }));
  std::uint64_t before = 0;
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(device.ReadFrame(nullptr), 0x3U);
    const float* const second = device.GetSensorPose(1);
    EXPECT_EQ(RampFrame(second[0], second[2]), FrameOf(device));
    EXPECT_GT(FrameOf(device), before);
    before = FrameOf(device);
  }
}

INSTANTIATE_TEST_SUITE_P(After, UsbUnplug, testing::Values(5, 36, 50),
                         [](const auto& row) { return std::to_string(row.param) + "Bytes"; });

struct Stranger {
  const char* name;
  std::optional<UsbIdentity> identity;
  std::unique_ptr<EmulatedDevice> (*make)();
  const char* said;
};

class UsbStranger : public OnUsb, public testing::WithParamInterface<Stranger> {};

TEST_P(UsbStranger, InPlaceOfTheUnitIsLeftAlone) {
  const Unit elsewhere(bus(), 2, Liberty(16));
  auto unit = std::make_unique<Unit>(bus(), 1, Liberty(16));
  LibertyDevice device;
  device.OpenPort("usb:1-1", kBaud);
  ASSERT_EQ(device.Boot(0), kBooted);
  ASSERT_TRUE(ReadOne(device));
  PullOut(unit);
  const auto boots = [&device] {
    device.ClosePort();
    return device.OpenPort("usb:1-1", kBaud) == 1 && device.Boot(0) == kBooted;
  };
  if (GetParam().identity) {
    unit = std::make_unique<Unit>(bus(), 1, GetParam().make(), *GetParam().identity);
  }
  testing::internal::CaptureStderr();
  EXPECT_FALSE(boots());
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find(GetParam().said), std::string::npos) << said;
  if (unit) PullOut(unit);
  unit = std::make_unique<Unit>(bus(), 1, Liberty(16));
  EXPECT_TRUE(boots());
  EXPECT_TRUE(ReadOne(device));
}

INSTANTIATE_TEST_SUITE_P(
    A, UsbStranger,
    testing::Values(
        Stranger{"LibertyThatSaysAnotherText", kLiberty, [] { return Liberty(16, {.unit = "2"}); },
                 "Another tracker answers on Polhemus Liberty at usb:1-1; it is left alone."},
        Stranger{"LibertyOfOtherSerialNumbers", kLiberty,
                 [] { return Liberty(16, {.serial = "2"}); },
                 "Another tracker answers on Polhemus Liberty at usb:1-1; it is left alone."},
        Stranger{"Patriot", With(0x0F44, 0xEF20), [] { return Liberty(2, {.isPatriot = true}); },
                 "usb:1-1 Polhemus Patriot 0f44:ef20 is in place of the Polhemus Liberty; it is "
                 "left alone"},
        Stranger{"Fastrak", kFastrak, [] { return Fastrak(1); },
                 "usb:1-1 is a Polhemus FASTRAK, which is type 2"},
        Stranger{"LibertyWithoutFirmware", With(0x0F44, 0xFF21), [] { return Liberty(1); },
                 "usb:1-1 is a Polhemus Liberty that waits for its firmware"},
        Stranger{"Nothing", std::nullopt, nullptr,
                 "usb:1-1: no usable unit; looked for 0f44:ff20"}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- FASTRAK -------------------------------------------------------------------------------

struct FastrakUnit {
  const char* name;
  UsbIdentity identity;
};

class FastrakOnUsb : public OnUsb, public testing::WithParamInterface<FastrakUnit> {};

TEST_P(FastrakOnUsb, IsTheSerialDriverOnAnotherLine) {
  const auto plugged = [&](unsigned port) {
    return std::make_unique<Unit>(bus(), port, Fastrak(2), GetParam().identity);
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

INSTANTIATE_TEST_SUITE_P(Unit, FastrakOnUsb,
                         testing::Values(FastrakUnit{"Newer", kFastrak},
                                         FastrakUnit{"OlderThroughItsInterruptEndpoint",
                                                     kOlderFastrak}),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- Whole runs ----------------------------------------------------------------------------

TEST_F(OnUsb, TwoRunsUseAUnitEachAndFollowItThroughAnUnplug) {
  Unit one(bus(), 1, Liberty(16, {.unit = "1"}));
  Unit two(bus(), 2, Liberty(2, {.unit = "2"}));
  LibraryRun first(10, {"-p", "usb:1-1", "-s0xFFFF"});
  ASSERT_TRUE(first.program().ExpectError("USB port open")) << first.error();
  ASSERT_TRUE(first.FramesPass(100)) << first.error();
  // Not both at once: umockdev names its event sockets by descriptor, and the names would collide.
  LibraryRun second(10, {"-p", "usb:1-2", "-s0x3"});
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

struct Only {
  const char* name;
  UsbIdentity identity;
  std::unique_ptr<EmulatedDevice> (*make)();
  int type;
  const char* said;  // about a Liberty in its place
};

class OnlyUnitRun : public OnUsb, public testing::WithParamInterface<Only> {};

TEST_P(OnlyUnitRun, NeedsNoNameAndWaitsForThisUnit) {
  auto unit = std::make_unique<Unit>(bus(), 1, GetParam().make(), GetParam().identity);
  LibraryRun run(GetParam().type, {"-p", "U", "-s0x3"});
  ASSERT_TRUE(run.FramesPass(100)) << run.error();
  EXPECT_NE(run.block().poses[1][0], 0.0F);
  PullOut(unit);
  unit = std::make_unique<Unit>(bus(), 1, Liberty(2));
  ASSERT_TRUE(run.program().ExpectError(GetParam().said)) << run.error();
  PullOut(unit);
  unit = std::make_unique<Unit>(bus(), 1, GetParam().make(), GetParam().identity);
  ASSERT_TRUE(run.program().ExpectError("is back")) << run.error();
  EXPECT_TRUE(run.FramesPass(50)) << run.error();
  EXPECT_EQ(run.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    With, OnlyUnitRun,
    testing::Values(Only{"APatriot", With(0x0F44, 0xEF20),
                         [] { return Liberty(2, {.isPatriot = true}); }, 10,
                         "usb:1-1 Polhemus Liberty 0f44:ff20 is in place of the Polhemus Patriot"},
                    Only{"AFastrak", kFastrak, [] { return Fastrak(2); }, 2,
                         "usb:1-1 is a Polhemus Liberty, which is type 10"},
                    Only{"AnOlderFastrak", kOlderFastrak, [] { return Fastrak(2); }, 2,
                         "usb:1-1 is a Polhemus Liberty, which is type 10"}),
    [](const auto& row) { return std::string(row.param.name); });

struct Stopped {
  const char* name;
  UsbIdentity identity;
  bool isLiberty;
  unsigned rate;  // records of its one station in a second
};

class StoppedRun : public OnUsb, public testing::WithParamInterface<Stopped> {};

// The system keeps the first frames of such a stop for as long as it lasts.
TEST_P(StoppedRun, PublishesNoPoseOfTheTimeInWhichItDidNotRun) {
  const Stopped& row = GetParam();
  Unit unit(bus(), 1, row.isLiberty ? Liberty(1) : Fastrak(1), row.identity);
  LibraryRun run(row.isLiberty ? 10 : 2, {"-p", "usb:1-1"});
  ASSERT_TRUE(run.FramesPass(50)) << run.error();
  const auto sent = [&unit] { return unit.emulator().RecordsSent(); };
  const auto frame = [&run] { return RampFrame(run.block().poses[0][0], run.block().poses[0][2]); };
  const std::uint64_t ahead = sent() - frame();
  // On a busy machine it may just be starting the unit anew, which then sends nothing. A program
  // that is stopped within a system call for the unit stops the emulated bus too: it hands over a
  // transfer just after a frame, so the stops come at several places between two frames.
  std::uint64_t stopped = 0;
  int tries = 0;
  EXPECT_TRUE(WaitUntil([&] {
    run.program().Signal(SIGCONT);
    if (!run.FramesPass(10)) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(++tries % 4));
    run.program().Signal(SIGSTOP);
    stopped = sent();
    return WaitUntil([&] { return sent() > stopped + 2 * row.rate; }, std::chrono::seconds(4));
  }));
  const auto last = run.Watch(0);
  ASSERT_FALSE(last.empty());
  run.program().Signal(SIGCONT);
  const std::uint64_t resumed = sent() - ahead;
  ASSERT_TRUE(run.program().ExpectError("waited for more than half a second and were dropped"))
      << run.error();
  for (const SharedTrackBlock& block : run.Watch(5)) {
    if (block.frameCount == last.back().frameCount) continue;
    EXPECT_GE(RampFrame(block.poses[0][0], block.poses[0][2]) + row.rate / 2, resumed)
        << run.error();
  }
  EXPECT_EQ(run.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, StoppedRun,
                         testing::Values(Stopped{"Liberty", kLiberty, true, 240},
                                         Stopped{"OlderFastrak", kOlderFastrak, false, 120}),
                         [](const auto& row) { return std::string(row.param.name); });

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

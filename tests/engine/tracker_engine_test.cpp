#include "engine/tracker_engine.h"

#include <gtest/gtest.h>

#include <climits>
#include <new>

#include "tests/engine/scripted_device.h"
#include "tests/support/free_slot.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

// Each result of Open, with the lines in the log and on the console.
struct OpenCase {
  const char* name;
  int type;
  int portResult;
  int portNumber;
  BootResult bootResult;
  OpenResult result;
  const char* log;
  const char* console;
};

class OpenEndings : public testing::TestWithParam<OpenCase> {};

TEST_P(OpenEndings, SayWhatHappened) {
  const OpenCase& row = GetParam();
  Script script;
  script.portResult = row.portResult;
  script.portNumber = row.portNumber;
  script.bootResult = row.bootResult;
  DeviceFactory factory;
  factory.device = [&](int type) -> std::unique_ptr<TrackerDevice> {
    if (type == 12) throw std::bad_alloc();
    if (type == 13) return nullptr;
    return std::make_unique<ScriptedDevice>(script);
  };
  TrackerEngine engine(factory);

  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  const OpenResult result = engine.Open(row.type, 3, false);
  const std::string console =
      testing::internal::GetCapturedStderr() + testing::internal::GetCapturedStdout();

  EXPECT_EQ(result, row.result);
  EXPECT_EQ(engine.IsOpen(), row.result == OpenResult::Opened);
  EXPECT_EQ(console, row.console);
  EXPECT_EQ(LogOf(engine), row.log);
  EXPECT_EQ(script.alive, row.result == OpenResult::Opened ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Engine, OpenEndings,
    testing::Values(
        OpenCase{"Opened", 3, 1, 3, 1, OpenResult::Opened,
                 "1 Initializing Ascension Flock... \n"
                 "2 Serial port(3) open ... \n"
                 "3 Tracker(Ascension Flock) booted ... \n",
                 "\nInitializing Ascension Flock... \n\tSerial port(3) open ... "
                 "\n\tTracker(Ascension Flock) booted ... "},
        OpenCase{"PortRefused", 3, 0, 3, 1, OpenResult::PortFailed,
                 "1 Initializing Ascension Flock... \n"
                 "-3 Port(3) failed to open(0).\n",
                 "\nInitializing Ascension Flock... \n\tPort(3) failed to open(0)."},
        OpenCase{"UnknownProduct", 3, 1, 3, -7, OpenResult::BootFailed,
                 "1 Initializing Ascension Flock... \n"
                 "2 Serial port(3) open ... \n"
                 "-4 Tracker(Ascension Flock) failed to boot(-7).\n"
                 "-4 Unrecognized product\n",
                 "\nInitializing Ascension Flock... \n\tSerial port(3) open ... "
                 "\n\tTracker(Ascension Flock) failed to boot(-7).\n\t\tUnrecognized product\n"},
        OpenCase{"SpaceBall", 5, 1, 3, 1, OpenResult::NoDevice,
                 "-1 SpaceBall instrument not supported.\n",
                 "\nSpaceBall instrument (TYPE=5) not supported."},
        OpenCase{"NoMemory", 12, 1, 3, 1, OpenResult::NoDevice,
                 "-1 Unknown device type specified.\n", "Unknown TYPE tistart.dtyp = 12"},
        OpenCase{"UnknownType", 13, 1, 3, 1, OpenResult::NoDevice,
                 "-1 Unknown device type specified.\n", "Unknown TYPE tistart.dtyp = 13"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(Engine, OpensOnceAndClosesOnce) {
  Script script;
  TrackerEngine engine(ScriptedFactory(script));
  EXPECT_FALSE(engine.Close());
  EXPECT_FALSE(engine.StartSampling());
  ASSERT_EQ(engine.Open(3, 1, false), OpenResult::Opened);
  EXPECT_EQ(engine.Open(3, 2, false), OpenResult::AlreadyOpen);
  EXPECT_EQ(engine.status().Newest().code, -2);
  EXPECT_EQ(engine.status().Newest().text, "Open: MTS already open");
  EXPECT_EQ(engine.Configuration().port, 1);
  EXPECT_EQ(script.alive, 1);
  EXPECT_TRUE(engine.Close());
  EXPECT_EQ(script.alive, 0);
  EXPECT_EQ(script.Calls().back(), "ClosePort");
  EXPECT_FALSE(engine.Close());
  EXPECT_EQ(engine.Open(3, 1, false), OpenResult::Opened);
}

// A thread that was stopped without a wait may still use the device. When Close returns, the port
// is closed and can be opened again.
TEST(Engine, CloseWaitsForAThreadThatWasToldToStopBefore) {
  FreeSlot slot;
  Script script;
  std::atomic<bool> reading = false;
  script.readFrame = [&](TrackerDevice&, double*) {
    reading = true;
    SleepFor(Milliseconds(50));
    return 1U;
  };
  TrackerEngine engine(ScriptedFactory(script));
  engine.SetSharedMemoryDevice(slot.device());
  ASSERT_EQ(engine.Open(3, 1, false), OpenResult::Opened);
  ASSERT_TRUE(engine.StartSampling());
  ASSERT_TRUE(WaitUntil([&] { return reading.load(); }));
  engine.StopSampling(false);
  EXPECT_TRUE(engine.Close());
  EXPECT_EQ(script.alive, 0);
  EXPECT_EQ(script.Calls().back(), "ClosePort");
}

// The calls that reach the device after boot, in their order.
struct PushCase {
  const char* name;
  std::function<void(StartConfig&)> edit;
  int statusCode = 0;
  const char* mask = "1";
  const char* units = "1";
  const char* sync = "0";
  const char* offset = "0,0,0,0,0,0";     // as given
  const char* corrected = "0,0,0,0,0,0";  // with the roll of all sensors
  std::vector<std::string> last = {};
};

TEST(Engine, PushesTheConfigurationInOrder) {
  const PushCase rows[] = {
      {.name = "defaults", .edit = [](StartConfig&) {}},
      {.name = "a roll given is taken back",
       .edit = [](StartConfig& c) { c.transmitterOffset = {10, 0, 0, 0, 0, 0.5F}; },
       .offset = "10,0,0,0,0,0.5",
       .corrected = "10,0,0,0,0,0"},
      {.name = "rolled and aligned",
       .edit =
           [](StartConfig& c) {
             c.rollAll = 1;
             c.sync = 2;
             c.sensorMask = 5;
             c.alignX = {1, 0, 0};
             c.alignY = {0, 1, 0};
           },
       .mask = "5",
       .sync = "2",
       .corrected = "0,0,0,0,0,-3.14159",
       .last = {"SetAlignment -1 1,0,0 0,1,0"}},
      {.name = "a GPS receiver has its own units",
       .edit = [](StartConfig&) {},
       .statusCode = 0xC00,
       .units = "2"}};
  for (const PushCase& row : rows) {
    Script script;
    script.statusCode = row.statusCode;
    TrackerEngine engine(ScriptedFactory(script));
    StartConfig config;
    row.edit(config);
    engine.Configure(config);
    ASSERT_EQ(engine.Open(3, 1, false), OpenResult::Opened);
    std::vector<std::string> expected = {"SetSensorMask " + std::string(row.mask) + " 0",
                                         "SetComponentMask 3",
                                         "SetSensorOffset -1 " + std::string(row.offset),
                                         "SetHemisphere -1 1,0,0",
                                         "SetUnits " + std::string(row.units),
                                         "SetSynchronization " + std::string(row.sync),
                                         "SetSensorOffset -1 " + std::string(row.corrected)};
    expected.insert(expected.end(), row.last.begin(), row.last.end());
    std::vector<std::string> calls = script.Calls();
    calls.erase(calls.begin(), calls.begin() + 2);  // OpenPortNumber, Boot
    EXPECT_EQ(calls, expected) << row.name;
  }
}

TEST(Engine, ReportsStatusAndAlignmentWhenAsked) {
  Script script;
  TrackerEngine engine(ScriptedFactory(script));
  StartConfig config;
  config.query = 1;
  config.alignX = {1, 0, 0};
  engine.Configure(config);
  testing::internal::CaptureStdout();
  ASSERT_EQ(engine.Open(3, 1, false), OpenResult::Opened);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nSTATUS:\n\tall well\n");
  EXPECT_TRUE(LogOf(engine).ends_with("3 STATUS: all well\n6 ALIGNED\n"));
}

TEST(Engine, DerivesTheSharedMemoryDeviceFromThePort) {
  struct Row {
    int port;
    int configured;
    int expected;
  };
  for (const Row& row : {Row{1, -1, 0}, Row{2, -1, 1}, Row{17, -1, 0}, Row{0, -1, 15},
                         Row{StartConfig::kUsbPort, -1, 0}, Row{INT_MIN, -1, 15}, Row{2, 9, 9}}) {
    Script script;
    TrackerEngine engine(ScriptedFactory(script));
    StartConfig config;
    config.shmDevice = row.configured;
    engine.Configure(config);
    ASSERT_EQ(engine.Open(3, row.port, false), OpenResult::Opened);
    EXPECT_EQ(engine.Configuration().shmDevice, row.expected) << row.port;
    engine.Close();
    EXPECT_EQ(engine.Configuration().shmDevice, -1);
  }
}

TEST(Engine, ReportsTheJoystick) {
  struct Row {
    int bootResult;  // -1: the system has no joysticks
    const char* entry;
  };
  for (const Row& row :
       {Row{1, "\n5 Joystick(0) booted ... \n"}, Row{0, "\n-5 Joystick(0) failed to boot(0).\n"},
        Row{-1, "\n-5 Joystick(0) failed to boot(0).\n"}}) {
    Script script;
    std::atomic<std::uint32_t> bits = 0;
    DeviceFactory factory = ScriptedFactory(script);
    factory.joystick = [&](int) -> std::unique_ptr<DAQControl> {
      if (row.bootResult < 0) return nullptr;
      return std::make_unique<ScriptedJoystick>(bits, 4, row.bootResult);
    };
    TrackerEngine engine(factory);
    StartConfig config;
    config.joystickPort = 2;
    engine.Configure(config);
    ASSERT_EQ(engine.Open(3, 1, false), OpenResult::Opened);
    EXPECT_TRUE(LogOf(engine).ends_with(row.entry)) << LogOf(engine);
  }
}

}  // namespace
}  // namespace kinetrel::test

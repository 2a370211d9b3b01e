// Whole runs of the sampling thread over real shared memory: what a reader sees, what the device
// was asked, what the log keeps.

#include "engine/sample_loop.h"

#include <gtest/gtest.h>

#include <kinetrel/stream.h>

#include <algorithm>

#include "devices/optional_interfaces.h"
#include "engine/tracker_engine.h"
#include "publish/shared_track_reader.h"
#include "tests/engine/scripted_device.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/free_slot.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

class Sampling : public testing::Test {
 protected:
  // Opens the scripted device and samples it.
  void Start(const std::function<void(StartConfig&)>& edit = [](StartConfig&) {}) {
    engine_ = std::make_unique<TrackerEngine>(factory_);
    StartConfig config;
    config.shmDevice = slot_.device();
    edit(config);
    engine_->Configure(config);
    ASSERT_EQ(engine_->Open(3, 1, false), OpenResult::Opened);
    ASSERT_TRUE(engine_->StartSampling());
  }

  bool Logged(int code, const std::string& text) {
    return WaitUntil([&] {
      const auto entries = engine_->status().Entries();
      return std::any_of(entries.begin(), entries.end(), [&](const StatusEntry& entry) {
        return entry.code == code && entry.text == text;
      });
    });
  }

  // The block as soon as it satisfies `condition`.
  SharedTrackBlock Await(const std::function<bool(const SharedTrackBlock&)>& condition) {
    SharedTrackBlock block{};
    EXPECT_TRUE(WaitUntil([&] {
      return reader_.OpenOnly(0) && reader_.Copy(block, Milliseconds(1000)) && condition(block);
    }));
    return block;
  }
  SharedTrackBlock AwaitFrames(int count) {
    return Await([=](const SharedTrackBlock& block) { return block.frameCount >= count; });
  }

  // A device that moves nothing and delivers `mask` every millisecond, azimuths 30 and 50 degrees.
  std::function<unsigned(TrackerDevice&, double*)> Deliver(unsigned mask) {
    return [mask](TrackerDevice& device, double* sampleTime) {
      SleepFor(Milliseconds(1));
      for (int sensor = 0; sensor < 2; ++sensor) {
        const float azimuth = sensor == 0 ? 30.0F : 50.0F;
        const float pose[6] = {1, 2, 3, azimuth, 5, 6};
        std::copy_n(pose, 6, device.GetSensorPose(sensor));
        const float quaternion[4] = {0.5F, 0.5F, 0.5F, 0.5F};
        std::copy_n(quaternion, 4, device.GetSensorQuaternion(sensor));
      }
      *sampleTime = device.ElapsedSeconds();
      return mask;
    };
  }

  FreeSlot slot_;
  Script script_;
  // Scripts change these, so they must outlive the engine's thread.
  std::atomic<int> reads_ = 0;
  std::atomic<std::uint32_t> bits_ = 0;
  DeviceFactory factory_ = ScriptedFactory(script_);
  std::unique_ptr<TrackerEngine> engine_;
  SharedTrackReader reader_{slot_.device()};
};

TEST_F(Sampling, PublishesWhatTheDeviceDelivers) {
  script_.readFrame = Deliver(3);
  script_.frameRate = 40;
  testing::internal::CaptureStderr();
  Start([](StartConfig& config) { config.sensorMask = 3; });
  const SharedTrackBlock block = AwaitFrames(20);
  EXPECT_EQ(block.writerPresent, 1);
  EXPECT_EQ(DeviceNameOf(block), "Ascension Flock");
  EXPECT_EQ(block.flags, 0x133U);
  EXPECT_EQ(block.sensorMask, 3U);
  EXPECT_EQ(block.frameRate, 40.0);
  EXPECT_EQ(std::to_array(block.poses[0]), (std::array<float, 6>{1, 2, 3, 30, 5, 6}));
  EXPECT_EQ(std::to_array(block.poses[1]), (std::array<float, 6>{1, 2, 3, 50, 5, 6}));
  EXPECT_EQ(std::to_array(block.poses[2]), (std::array<float, 6>{}));
  // Both times have the writer's start as origin.
  EXPECT_GE(block.publishTime, block.sampleTime);
  EXPECT_LT(block.publishTime - block.sampleTime, 5.0);

  EXPECT_TRUE(engine_->StopSampling(true));
  const SharedTrackBlock last = Await([](const SharedTrackBlock&) { return true; });
  EXPECT_EQ(last.writerPresent, 0);

  const std::string said = testing::internal::GetCapturedStderr();
  char expected[512];
  std::snprintf(expected, sizeof expected,
                "\n\tSharedMemory(%d) open ... "
                "\n\tFlags: Sensors(1200), Components(CART|EULR|), Units(CM) ."
                "\n\tRate = 40 Hz.\n\tNap = 15 msecs.\nRunning ...  \t%d frames sampled."
                "\n\t%8.1f seconds elapsed.\nClosing ... \n\tMTS closed. ",
                slot_.slot(), last.frameCount, last.publishTime);
  EXPECT_TRUE(said.ends_with(expected)) << said;
}

TEST_F(Sampling, AzimuthZeroShiftsEverySensorAndNothingElse) {
  script_.readFrame = Deliver(3);
  Start([](StartConfig& config) {
    config.sensorMask = 3;
    config.componentMask = 7;
  });
  AwaitFrames(3);
  engine_->ZeroAzimuth();
  // The sensor written last, at 50 degrees, becomes zero; the other is turned with it.
  const SharedTrackBlock zeroed = Await([](const SharedTrackBlock& block) {
    return block.poses[0][3] == -20.0F && block.poses[1][3] == 0.0F;
  });
  EXPECT_EQ(std::to_array(zeroed.poses[0]), (std::array<float, 6>{1, 2, 3, -20, 5, 6}));
  EXPECT_EQ(std::to_array(zeroed.quaternions[0]), (std::array<float, 4>{0.5F, 0.5F, 0.5F, 0.5F}));
  engine_->RestoreAzimuth();
  Await([](const SharedTrackBlock& block) {
    return block.poses[0][3] == 30.0F && block.poses[1][3] == 50.0F;
  });
}

struct ComponentCase {
  const char* name;
  unsigned components;
  bool recordsGone;
  std::array<float, 6> pose;
  std::array<float, 4> quaternion;
};

class Components : public Sampling, public testing::WithParamInterface<ComponentCase> {};

TEST_P(Components, ChooseWhatIsWritten) {
  const ComponentCase& row = GetParam();
  const auto deliver = Deliver(1);
  script_.readFrame = [&, deliver](TrackerDevice& device, double* sampleTime) {
    if (!row.recordsGone) return deliver(device, sampleTime);
    SleepFor(Milliseconds(1));
    return 1U;
  };
  script_.recordsGone = row.recordsGone;
  Start([&](StartConfig& config) { config.componentMask = row.components; });
  const SharedTrackBlock block = AwaitFrames(2);
  EXPECT_EQ(ComponentMaskOf(block), row.components);
  EXPECT_EQ(std::to_array(block.poses[0]), row.pose);
  EXPECT_EQ(std::to_array(block.quaternions[0]), row.quaternion);
}

INSTANTIATE_TEST_SUITE_P(
    Engine, Components,
    testing::Values(ComponentCase{"None", 0, false, {}, {1, 0, 0, 0}},
                    ComponentCase{"Position", 1, false, {1, 2, 3, 0, 0, 0}, {1, 0, 0, 0}},
                    ComponentCase{"Angles", 2, false, {0, 0, 0, 30, 5, 6}, {1, 0, 0, 0}},
                    ComponentCase{"Pose", 3, false, {1, 2, 3, 30, 5, 6}, {1, 0, 0, 0}},
                    ComponentCase{"Quaternion", 4, false, {}, {0.5F, 0.5F, 0.5F, 0.5F}},
                    ComponentCase{"NoRecordOfPose", 3, true, {}, {1, 0, 0, 0}},
                    ComponentCase{"NoRecordOfAnything", 7, true, {}, {1, 0, 0, 0}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Sampling, ReportsARunOfFailuresOnce) {
  const auto deliver = Deliver(1);
  script_.errorText = "BIT error";
  script_.readText = "01a";
  script_.reportCode = -7;
  script_.readFrame = [this, deliver](TrackerDevice& device, double* sampleTime) {
    const int frame = ++reads_;
    // 500 good frames, three failures, good for ever.
    return frame > 500 && frame <= 503 ? 0U : deliver(device, sampleTime);
  };
  Start();
  EXPECT_TRUE(Logged(-7, "Error: Sampling error. (after 500 valid samples)"));
  EXPECT_TRUE(Logged(0, "Tracker Error: BIT error"));
  EXPECT_TRUE(Logged(0, "Tracker Read String: 01a"));
  EXPECT_TRUE(Logged(1, "Running. (after 3 error samples)"));
}

// A device that fails at once, for ever, must not take the processor with it.
TEST_F(Sampling, FailuresAtOnceAreFollowedByARest) {
  script_.frameRate = 10;  // a nap of 90 ms after a publication, so none after a failure
  script_.readFrame = [this](TrackerDevice&, double*) {
    ++reads_;
    return 0U;
  };
  Start();
  EXPECT_TRUE(Logged(0, "Error: Sampling error. (after 0 valid samples)"));
  const int before = reads_;
  SleepFor(Milliseconds(200));
  EXPECT_LE(reads_ - before, 11);
}

struct ModeCase {
  const char* name;
  int statusCode;
  int asked;  // 1 streaming
  bool streams;
  const char* said;
};

class Modes : public Sampling, public testing::WithParamInterface<ModeCase> {};

TEST_P(Modes, FollowTheDevice) {
  const ModeCase& row = GetParam();
  script_.statusCode = row.statusCode;
  script_.readFrame = Deliver(1);
  Start([&](StartConfig& config) { config.streaming = row.asked; });
  AwaitFrames(1);
  const auto calls = script_.Calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "StartContinuous"), row.streams ? 1 : 0);
  EXPECT_EQ(engine_->Configuration().streaming, row.streams ? 1 : 0);
  EXPECT_TRUE(*row.said == '\0' || Logged(3, row.said));
}

constexpr const char* kNoStreaming = "Streaming not supported on Ascension Flock.";
constexpr const char* kNoPolling = "Polling not supported on Ascension Flock.";
INSTANTIATE_TEST_SUITE_P(
    Engine, Modes,
    testing::Values(ModeCase{"AnyStreams", 0, 1, true, ""}, ModeCase{"AnyPolls", 0, 0, false, ""},
                    ModeCase{"NewSerialStreams", 0x201, 1, true, ""},
                    ModeCase{"OldSerialIsPolled", 0x204, 1, false, kNoStreaming},
                    ModeCase{"PanTiltIsPolled", 0x103, 1, false, kNoStreaming},
                    ModeCase{"LogitechIsPolled", 0x400, 1, false, kNoStreaming},
                    ModeCase{"LibraryIsPolled", 0x602, 1, false, kNoStreaming},
                    ModeCase{"GpsStreams", 0xC00, 0, true, kNoPolling},
                    ModeCase{"NoPollStreams", 0x800, 0, true, kNoPolling}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Sampling, ButtonsAppearVanishAndComeBack) {
  bits_ = 0x15;  // the fifth bit does not belong to a channel
  factory_.joystick = [&](int) { return std::make_unique<ScriptedJoystick>(bits_); };
  script_.readFrame = Deliver(1);
  Start([](StartConfig& config) { config.joystickPort = 1; });
  const auto pressed = [](std::uint32_t buttons) {
    return [=](const SharedTrackBlock& block) {
      return ButtonsValid(block) && block.buttons == buttons;
    };
  };
  Await(pressed(0x5));
  bits_ = ScriptedJoystick::kUnplugged;
  Await([](const SharedTrackBlock& block) { return !ButtonsValid(block); });
  bits_ = 0xA;
  Await(pressed(0xA));
}

// A tracker that delivers frames and knows bits 0 to 6 of the buttons.
class TrackerWithButtons final : public TrackerDevice, public ButtonBits {
 public:
  explicit TrackerWithButtons(std::atomic<std::uint32_t>& bits) : bits_(bits) {
    AllocateSensors(1);
  }
  int OpenPortNumber(int number, int) override { return portNumber_ = number; }
  BootResult Boot(int) override { return kBooted; }
  int QueryStatus(char*, int) override { return 0; }
  unsigned ReadFrame(double*) override { return Pause(1) ? 1U : 0U; }
  Buttons OwnButtons() const override { return {0x7F, bits_}; }

 private:
  std::atomic<std::uint32_t>& bits_;
};

TEST_F(Sampling, ATrackersOwnButtonsGoBeforeTheJoysticksAndLeaveTheOthers) {
  std::atomic<std::uint32_t> own = 0x141;
  bits_ = 0x2FF;
  factory_.device = [&](int) { return std::make_unique<TrackerWithButtons>(own); };
  factory_.joystick = [&](int) { return std::make_unique<ScriptedJoystick>(bits_, 10); };
  Start([](StartConfig& config) { config.joystickPort = 1; });
  Await([](const SharedTrackBlock& block) { return block.buttons == 0x2C1; });
  bits_ = ScriptedJoystick::kUnplugged;
  own = 0x12;
  Await(
      [](const SharedTrackBlock& block) { return !ButtonsValid(block) && block.buttons == 0x292; });
  engine_.reset();  // before what its device looks at
}

TEST_F(Sampling, WithoutSharedMemoryTheThreadEndsAndSaysSo) {
  // Objects of another kind have all sixteen names, and this process has them open.
  std::vector<NamedMutex> taken;
  for (int bin = 0; bin < kSharedBins; ++bin) {
    Result<NamedMutex> wrong = NamedMutex::Open(BlockName(slot_.device(), bin));
    ASSERT_TRUE(wrong.Ok());
    taken.push_back(*wrong);
  }
  Start();
  EXPECT_TRUE(engine_->WaitSampling(Milliseconds(20000)));
  EXPECT_TRUE(Logged(-10, "MTS failed to open."));
  EXPECT_TRUE(Logged(6, "MTS closed."));
}

// 10,000 frames of 8 sensors each, with the cursor that blinks.
TEST_F(Sampling, NothingIsAllocatedPerFrame) {
  script_.readFrame = [&](TrackerDevice& device, double* sampleTime) {
    CountAllocations(++reads_ > 100 && reads_ <= 10100);
    *sampleTime = device.ElapsedSeconds();
    return 0xFFU;
  };
  script_.frameRate = 20000;
  Start([](StartConfig& config) {
    config.sensorMask = 0xFF;
    config.componentMask = 7;
    config.streaming = 0;
  });
  ASSERT_TRUE(WaitUntil([&] { return reads_ > 10200; }));
  EXPECT_EQ(CountedAllocations(), 0);
}

// 31 naps of 0.99 s follow each frame: a stop and a control call do not wait for one of them.
TEST_F(Sampling, StopsAndAnswersBetweenTwoPublications) {
  script_.readFrame = Deliver(0x7FFFFFFF);
  script_.frameRate = 1;
  Start([](StartConfig& config) {
    config.sensorMask = 0x7FFFFFFF;
    config.streaming = 1;
  });
  AwaitFrames(1);
  const auto promptly = [](const auto& act) {
    const Deadline deadline(Milliseconds(700));
    act();
    return !deadline.Passed();
  };
  for (int i = 0; i < 5; ++i) {
    int value = 0;
    EXPECT_TRUE(promptly([&] { engine_->GetAttributeInt(3, &value); }));
    EXPECT_TRUE(promptly([&] { engine_->ZeroAzimuth(); }));
  }
  EXPECT_TRUE(promptly([&] { engine_->StopSampling(true); }));
}

TEST_F(Sampling, ABinThatAClientKeepsIsSkippedAndSaid) {
  script_.readFrame = Deliver(1);
  Start();
  const int other[3] = {slot_.device(), 1, 0};
  ASSERT_TRUE(engine_->SetMapping(other, 0));
  AwaitFrames(3);
  SharedTrackReader goesOn(slot_.device());
  ASSERT_TRUE(goesOn.OpenOnly(1));
  ASSERT_TRUE(reader_.Lock(Milliseconds(1000)));
  const std::string where = "SharedMemory(" + std::to_string(slot_.slot()) + "), bin 0";
  const auto said = [&](const std::string& text) {
    return WaitUntil([&] { return LogOf(*engine_).find(text) != std::string::npos; });
  };
  EXPECT_TRUE(said(") holds " + where));
  const auto framesOfTheOther = [&] {
    SharedTrackBlock block{};
    EXPECT_TRUE(goesOn.Copy(block, Milliseconds(1000)));
    return block.frameCount;
  };
  const int before = framesOfTheOther();
  EXPECT_TRUE(WaitUntil([&] { return framesOfTheOther() > before + 20; }));
  const int kept = reader_.block()->frameCount;
  reader_.Unlock();
  EXPECT_TRUE(said(where + " is free again"));
  AwaitFrames(kept + 1);
  ASSERT_TRUE(reader_.Lock(Milliseconds(1000)));
  const Deadline soon(Milliseconds(2500));
  engine_->Close();
  EXPECT_FALSE(soon.Passed());
  reader_.Unlock();
}

// A device that does not come back from a read: the stop gives up after its time, and the next run
// has the blocks to itself when the thread comes back at last.
TEST_F(Sampling, AHungDeviceIsAbandonedNotCrashed) {
  StopEvent release;
  const auto deliver = Deliver(1);
  script_.readFrame = [&, deliver](TrackerDevice& device, double* sampleTime) {
    if (++reads_ == 1) release.Wait(kForever);
    return deliver(device, sampleTime);
  };
  Start();
  ASSERT_TRUE(WaitUntil([&] { return reads_ == 1; }));
  kinetrel_stream stream;
  ASSERT_EQ(kinetrel_stream_open(&stream, slot_.slot(), 1000), kinetrel_stream_ok);
  engine_->Close();
  char why[256];
  EXPECT_EQ(kinetrel_stream_state(&stream, why), kinetrel_state_failed);
  EXPECT_NE(std::string(why).find("was given up. Unplug it"), std::string::npos) << why;
  kinetrel_stream_close(&stream);
  EXPECT_EQ(script_.alive, 1);  // the thread still owns the device
  const auto calls = script_.Calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "ClosePort"), 0);

  engine_->SetSharedMemoryDevice(slot_.device());
  ASSERT_EQ(engine_->Open(3, 1, false), OpenResult::Opened);
  ASSERT_TRUE(engine_->StartSampling());
  AwaitFrames(2);
  release.Set();
  EXPECT_TRUE(WaitUntil([&] { return script_.alive == 1; }));
  EXPECT_EQ(AwaitFrames(10).writerPresent, 1);
  EXPECT_EQ(LogOf(*engine_).find("Closing"), std::string::npos);
  engine_.reset();  // before what its device looks at
}

}  // namespace
}  // namespace kinetrel::test

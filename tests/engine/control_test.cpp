// The control interface as a host program uses it: refusals, settings, and calls from many threads
// while frames are published.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "engine/tracker_engine.h"
#include "publish/shared_track_reader.h"
#include "tests/engine/scripted_device.h"
#include "tests/support/free_slot.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

constexpr int kHere[3] = {0, 0, 0};      // an existing mapping
constexpr int kNowhere[3] = {0, 3, 31};  // a missing mapping
constexpr int kBinBeyond[3] = {0, 16, 0};
constexpr int kSlotBelow[3] = {0, 0, -1};
constexpr int kDeviceBeyond[3] = {99, 0, 0};
constexpr int kItself = -1;

class Control : public testing::Test {
 protected:
  Control() {
    script_.readFrame = [this](TrackerDevice& device, double* sampleTime) {
      SleepFor(Milliseconds(1));
      device.GetSensorPose(0)[0] = 7;
      *sampleTime = device.ElapsedSeconds();
      ++frames_;
      return 3U;
    };
    StartConfig config;
    config.componentMask = 7;
    config.sensorMask = 3;
    engine_.Configure(config);
  }
  void Open() {
    engine_.SetSharedMemoryDevice(slot_.device());  // a Close forgets it
    ASSERT_EQ(engine_.Open(3, 1, false), OpenResult::Opened);
  }
  void Start() {
    Open();
    ASSERT_TRUE(engine_.StartSampling());
    ASSERT_TRUE(WaitUntil([&] { return frames_ > 5; }));
  }
  int At(EngineAttribute id) {
    int value = -99;
    EXPECT_TRUE(engine_.GetAttributeInt(static_cast<int>(id), &value));
    return value;
  }
  bool Set(EngineAttribute id, int value) {
    return engine_.SetAttributeInt(static_cast<int>(id), value);
  }
  // The lines that the engine has logged since the last call.
  std::string Said() {
    const std::string all = LogOf(engine_);
    return all.substr(std::exchange(said_, all.size()));
  }

  FreeSlot slot_;
  Script script_;
  std::atomic<int> frames_ = 0;
  TrackerEngine engine_{ScriptedFactory(script_)};
  std::size_t said_ = 0;
};

// ---- Refusals --------------------------------------------------------------------------------

struct Refusal {
  const char* name;
  std::function<bool(TrackerEngine&)> call;
  const char* said = "";
};

int number = 0;
float floats[6] = {};
char text[64] = {};
AttributeInfo rows[20];

// The name is the first word of the message.
const Refusal kClosed[] = {
    {"GetAttributeInt", [](auto& e) { return e.GetAttributeInt(2, &number); }},
    {"SetAttributeFloatArray", [](auto& e) { return e.SetAttributeFloatArray(7, 6, floats); }},
    {"GetAttributeString", [](auto& e) { return e.GetAttributeString(0, 64, text); }},
    {"GetMappingSize", [](auto& e) { return e.GetMappingSize(&number); }},
    {"GetMapping", [](auto& e) { return e.GetMapping(kHere, &number); }},
    {"AddFilter", [](auto& e) { return e.AddFilter(kHere, 3) != 0; }},
    {"ClearFilters", [](auto& e) { return e.ClearFilters(kHere); }},
    {"GetNumFilters", [](auto& e) { return e.GetNumFilters(kHere, &number); }},
    {"MoveFilter", [](auto& e) { return e.MoveFilter(kHere, 0, true); }},
    {"GetFilterAttributeInt", [](auto& e) { return e.SetFilterAttributeInt(kHere, 0, 0, 1); }},
    {"GetFilterAttributeInt",
     [](auto& e) { return e.GetFilterAttributeInt(kHere, 0, 0, &number); }},
    {"GetFilterAttributeFloatArray",
     [](auto& e) { return e.GetFilterAttributeFloatArray(kHere, 0, 0, 1, floats); }},
    {"GetAvailableFilterAttributes",
     [](auto& e) { return e.GetAvailableFilterAttributes(kHere, 0, 1, rows); }},
};

TEST_F(Control, IsRefusedWhileClosed) {
  for (const Refusal& row : kClosed) {
    EXPECT_FALSE(row.call(engine_)) << row.name;
    EXPECT_EQ(Said(), "-1 " + std::string(row.name) + ": MTS Not Open\n");
  }
}

const Refusal kOpen[] = {
    {"IntNull", [](auto& e) { return e.GetAttributeInt(2, nullptr); },
     "-1 GetAttributeInt: val is NULL\n"},
    {"IntUnknown", [](auto& e) { return e.GetAttributeInt(7, &number); },
     "-1 SetAttributeInt: Invalid Attribute\n"},
    {"DeviceTypeSet", [](auto& e) { return e.SetAttributeInt(18, 2); },
     "-2 SetAttributeInt: MtsDeviceType cannot be set.\n"
     "-3 SetAttributeInt: Set Failed\n"},
    {"SlotBeyondTheLast", [](auto& e) { return e.SetAttributeInt(2, 16); },
     "-3 SetAttributeInt: Set Failed\n"},
    {"FloatsCount", [](auto& e) { return e.GetAttributeFloatArray(7, 3, floats); },
     "-1 GetAttributeFloatArray: Offset requires 6 floats\n"},
    {"FloatsSetUnknown", [](auto& e) { return e.SetAttributeFloatArray(2, 1, floats); },
     "-3 SetAttributeFloatArray: Invalid Attribute\n"
     "-3 SetAttributeFloatArray: Set Failed\n"},
    {"FloatsSetNull", [](auto& e) { return e.SetAttributeFloatArray(7, 6, nullptr); },
     "-1 SetAttributeFloatArray: vec is NULL\n"
     "-3 SetAttributeFloatArray: Set Failed\n"},
    {"ProtocolBeyondAnInt", [](auto& e) { return e.SetAttributeString(16, "99999999999"); },
     "-1 SetAttributeString: Invalid Protocol.  Protocol string must start with an integer.\n"
     "-3 SetAttributeFloatArray: Set Failed\n"},
    {"ListTooLong", [](auto& e) { return e.GetMappingList(3, &number); },
     "-1 GetMappingList: Invalid mapping size requested\n"},
    {"MappingMissing", [](auto& e) { return e.GetMapping(kNowhere, &number); },
     "-1 GetMapping: Mapping (0,3,31) doesn't exist\n"},
    {"MappingBinBeyond", [](auto& e) { return e.SetMapping(kBinBeyond, 0); },
     "-1 SetMapping: Invalid Mapping\n"},
    {"MappingSlotBelow", [](auto& e) { return e.SetMapping(kSlotBelow, 0); },
     "-1 SetMapping: Invalid Mapping\n"},
    {"KeyNull", [](auto& e) { return e.GetMapping(nullptr, &number); },
     "-1 GetMapping: key is NULL\n"},
    {"FilterMissing", [](auto& e) { return e.GetFilterType(kHere, 2, &number); },
     "-1 GetFilterType: Filter 2 doesn't exist\n"},
    {"FilterMoved", [](auto& e) { return e.MoveFilter(kHere, 0, true); },
     "-1 Filter index 0 invalid.  Cuurrent filter list size: 0.\n"},
    {"NotSettable", [](auto& e) { return e.SetFilterAttributeString(kHere, kItself, 0, "a"); },
     "-1 SetFilterAttributeInt: No settable Mapping Attributes\n"},
    {"PositionCount",
     [](auto& e) { return e.GetFilterAttributeFloatArray(kHere, kItself, 1, 4, floats); },
     "-1 GetFilterAttributeInt: MappingPosition: num_vec must be 3.\n"},
    {"ComponentOfNoDevice",
     [](auto& e) { return e.GetFilterAttributeInt(kDeviceBeyond, kItself, 5, &number); },
     "-1 GetFilterAttributeInt: Unable to open shared memory to desired mapping.\n"},
};

TEST_F(Control, EachRefusalLogsItsReason) {
  Open();
  Said();
  for (const Refusal& row : kOpen) {
    EXPECT_FALSE(row.call(engine_)) << row.name;
    EXPECT_EQ(Said(), row.said) << row.name;
  }
}

// ---- Settings --------------------------------------------------------------------------------

TEST_F(Control, SettingsReachTheDeviceAndAreReadBack) {
  Start();
  EXPECT_TRUE(Set(EngineAttribute::Units, 3));
  EXPECT_EQ(At(EngineAttribute::Units), 3);
  EXPECT_TRUE(Set(EngineAttribute::Synchronization, 2));
  EXPECT_TRUE(Set(EngineAttribute::SensorMask, 5));
  EXPECT_EQ(At(EngineAttribute::SensorMask), 5);
  int size = 0;
  EXPECT_TRUE(engine_.GetMappingSize(&size));
  EXPECT_EQ(size, 2);
  int keys[6] = {};
  EXPECT_TRUE(engine_.GetMappingList(2, keys));
  EXPECT_EQ(keys[5], 2);  // pose slot of the third sensor
  // Each setting stopped and started the thread once.
  const auto count = [&](const char* call) {
    const auto calls = script_.Calls();
    return std::count(calls.begin(), calls.end(), call);
  };
  EXPECT_TRUE(WaitUntil([&] { return count("StartContinuous") == 4; }));
  EXPECT_EQ(count("SetSensorMask 5 0"), 1);
  const int before = frames_;
  EXPECT_TRUE(WaitUntil([&] { return frames_ > before + 5; }));
}

TEST_F(Control, RollFollowsTheOffset) {
  Open();
  EXPECT_EQ(At(EngineAttribute::RollAllSensors), 0);
  EXPECT_TRUE(Set(EngineAttribute::RollAllSensors, 1));
  EXPECT_EQ(At(EngineAttribute::RollAllSensors), 1);
  const float turned[6] = {1, 2, 3, 0, 0, 0.5F};
  EXPECT_TRUE(engine_.SetAttributeFloatArray(7, 6, turned));
  EXPECT_EQ(At(EngineAttribute::RollAllSensors), -1);
  EXPECT_TRUE(engine_.GetAttributeFloatArray(7, 6, floats));
  EXPECT_EQ(std::memcmp(floats, turned, sizeof turned), 0);
  EXPECT_EQ(script_.Calls().back(), "SetSensorOffset -1 1,2,3,0,0,0.5");
}

TEST_F(Control, TextsAreCutToTheCallersBuffer) {
  Open();
  EXPECT_TRUE(engine_.SetAttributeString(0, "north wall"));
  char small[6] = {'?', '?', '?', '?', '?', '?'};
  EXPECT_TRUE(engine_.GetAttributeString(0, 5, small));
  EXPECT_EQ(std::string(small, 6), "north?");
  EXPECT_TRUE(engine_.SetAttributeString(16, " 3 of them"));
  EXPECT_TRUE(engine_.GetAttributeString(16, 64, text));
  EXPECT_STREQ(text, "3");
  EXPECT_TRUE(engine_.SetAttributeString(16, "1234567890"));
  EXPECT_TRUE(engine_.GetAttributeString(16, 64, text));
  EXPECT_STREQ(text, "1234567890");

  engine_.Close();
  Open();
  EXPECT_TRUE(engine_.GetAttributeString(0, 64, text));
  EXPECT_STREQ(text, "");
}

TEST_F(Control, AMappingIsKnownByBinAndSlot) {
  Start();
  const int asked[3] = {7, 2, 4};
  EXPECT_TRUE(engine_.SetMapping(asked, 0));
  const int other[3] = {99, 2, 4};
  int sensor = -1;
  EXPECT_TRUE(engine_.GetMapping(other, &sensor));
  EXPECT_EQ(sensor, 0);
  const int published[3] = {slot_.device(), 2, 4};
  EXPECT_TRUE(WaitUntil([&] {
    float position[3] = {};
    return engine_.GetFilterAttributeFloatArray(published, kItself, 1, 3, position) &&
           position[0] == 7;
  }));
  EXPECT_TRUE(WaitUntil([&] {
    float rate[4] = {};
    return engine_.GetFilterAttributeFloatArray(published, kItself, 6, 4, rate) && rate[0] > 1 &&
           rate[2] <= rate[0] && rate[0] <= rate[3];
  }));
  EXPECT_TRUE(engine_.GetFilterAttributeString(published, kItself, 0, 64, text));
  EXPECT_STREQ(text, "Mapping Name");
  EXPECT_TRUE(engine_.SetMapping(asked, -1));
  EXPECT_FALSE(engine_.GetMapping(asked, &sensor));
}

TEST_F(Control, ABinThatAClientKeepsIsWaitedForOnce) {
  Start();
  const int published[3] = {slot_.device(), 0, 0};
  SharedTrackReader client(slot_.device());
  ASSERT_TRUE(client.OpenOnly(0));
  ASSERT_TRUE(client.Lock(Milliseconds(1000)));
  const Deadline soon(Milliseconds(3000));
  std::thread([&] {
    for (int i = 0; i < 20; ++i) {
      EXPECT_FALSE(engine_.GetFilterAttributeInt(published, kItself, 5, &number));
    }
  }).join();
  EXPECT_FALSE(soon.Passed());
  client.Unlock();
  EXPECT_TRUE(
      WaitUntil([&] { return engine_.GetFilterAttributeInt(published, kItself, 5, &number); }));
}

TEST_F(Control, AddFilterMakesTheMappingButNoFilter) {
  Open();
  EXPECT_EQ(engine_.AddFilter(kNowhere, 3), -1);
  int count = -1;
  EXPECT_TRUE(engine_.GetNumFilters(kNowhere, &count));
  EXPECT_EQ(count, 0);
}

// ---- While frames are published --------------------------------------------------------------

TEST_F(Control, ManyThreadsCostNoFrame) {
  Start();
  const int here[3] = {slot_.device(), 0, 0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int call = 0; call < 2500; ++call) {
        int value = 0;
        float offset[6] = {};
        engine_.GetAttributeInt(call % 19, &value);
        if (call % 50 == i) engine_.SetAttributeFloatArray(7, 6, offset);
        EXPECT_TRUE(engine_.GetFilterAttributeInt(here, kItself, 5, &value));
        engine_.ZeroAzimuth();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const int before = frames_;
  EXPECT_TRUE(WaitUntil([&] { return frames_ > before; }));

  // Every frame of both sensors was published and counted in one run: no call restarted the
  // sampling thread. The stop may leave out the frame that was being read.
  SharedTrackReader reader(slot_.device());
  SharedTrackBlock block{};
  ASSERT_TRUE(reader.OpenOnly(0));
  engine_.StopSampling(true);
  ASSERT_TRUE(reader.Copy(block, Milliseconds(1000)));
  EXPECT_GE(block.frameCount, 2 * (frames_ - 1));
  EXPECT_LE(block.frameCount, 2 * frames_);
}

TEST_F(Control, CallsDuringOpenAndCloseDoNoHarm) {
  std::atomic<bool> over = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, i] {
      while (!over) {
        int value = 0;
        engine_.GetAttributeInt(3, &value);
        engine_.SetAttributeInt(i == 0 ? 5 : 12, 1);
        engine_.SetMapping(kHere, 0);
        engine_.GetFilterAttributeInt(kHere, kItself, 5, &value);
        if (i == 1) engine_.StartSampling();
      }
    });
  }
  for (int round = 0; round < 50; ++round) {
    Open();
    engine_.StartSampling();
    engine_.Close();
    // No run outlives a close.
    EXPECT_FALSE(engine_.HasSamplingThread());
    EXPECT_EQ(script_.alive, 0);
  }
  over = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace kinetrel::test

// Filters in a whole run: what clients of the stream and of the blocks see while a host changes
// them.
#include <gtest/gtest.h>

#include <kinetrel/stream.h>

#include <algorithm>
#include <cmath>
#include <thread>

#include "publish/shared_track_reader.h"
#include "tests/engine/scripted_device.h"
#include "tests/support/free_slot.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

constexpr int kMappingOf0[] = {0, 0, 0};
constexpr int kMappingOf1[] = {0, 0, 1};
constexpr float kQuarter = static_cast<float>(kPi / 2);

class FilteredRun : public testing::Test {
 protected:
  // Two sensors, both 100 cm ahead and turned a quarter to the left, a frame a millisecond.
  void Start(const std::vector<const char*>& filters) {
    script_.readFrame = [this](TrackerDevice& device, double* sampleTime) {
      SleepFor(Milliseconds(1));
      const double now = device.ElapsedSeconds();
      for (int sensor = 0; sensor < 2; ++sensor) {
        const auto way = static_cast<float>(speed_ * now);
        const float pose[6] = {100 + way, 0, 0, kQuarter, 0, 0};
        if (float* const record = device.GetSensorPose(sensor)) std::copy_n(pose, 6, record);
      }
      *sampleTime = now;
      const unsigned told = 3U & ~untold_.load();
      static_cast<ScriptedDevice&>(device).TellRecords(told, *sampleTime);
      reads_ += 1;
      return told;
    };
    StartConfig config;
    config.shmDevice = slot_.device();
    config.sensorMask = 3;
    for (const char* const text : filters) {
      std::string error;
      ASSERT_TRUE(ReadFilterOption(text, config.filters.emplace_back(), error)) << error;
    }
    engine_.Configure(config);
    ASSERT_EQ(engine_.Open(3, 1, false), OpenResult::Opened);
    ASSERT_TRUE(engine_.StartSampling());
    ASSERT_EQ(kinetrel_stream_open(&stream_, slot_.slot(), 10'000), kinetrel_stream_ok);
  }
  void TearDown() override { kinetrel_stream_close(&stream_); }

  // The next record of a sensor that has or lacks the bit, within two thousand.
  kinetrel_record Next(unsigned sensor, unsigned bit, bool has) {
    kinetrel_record record{};
    for (int i = 0; i < 2000; ++i) {
      const kinetrel_stream_result result = kinetrel_stream_next(&stream_, &record, 10'000);
      if (result == kinetrel_stream_restarted) continue;  // a setting has started sampling anew
      EXPECT_EQ(result, kinetrel_stream_ok);
      if (record.sensor == sensor && ((record.flags & bit) != 0) == has) return record;
    }
    ADD_FAILURE() << "no such record of sensor " << sensor;
    return record;
  }
  std::string FirstLine(const std::string& part) {
    for (const StatusEntry& entry : engine_.status().Entries()) {
      if (entry.text.find(part) != std::string::npos) return entry.text;
    }
    return "";
  }

  const FreeSlot slot_;
  std::atomic<int> reads_ = 0;
  std::atomic<unsigned> untold_ = 0;  // sensors
  std::atomic<double> speed_ = 0.0;   // cm/s along x
  Script script_;
  TrackerEngine engine_{ScriptedFactory(script_)};
  kinetrel_stream stream_{};
};

TEST_F(FilteredRun, AConfiguredFilterChangesItsSensorAndKeepsTheDevicesOwnPose) {
  Start({"rigid:translation-m=0/0/2,tip-m=0.5/0/0,sensors=1"});
  const kinetrel_record record = Next(0, kinetrel_filtered, true);
  EXPECT_NEAR(record.position[0], 1.0, 1e-6);
  EXPECT_NEAR(record.position[1], 0.5, 1e-6);
  EXPECT_NEAR(record.position[2], 2.0, 1e-6);
  EXPECT_NEAR(record.angles[0], kQuarter, 1e-6);
  EXPECT_EQ(record.flags & kinetrel_filter_failed, 0U);
  kinetrel_device_pose own;
  ASSERT_EQ(kinetrel_stream_device_pose(&stream_, &record, &own), kinetrel_stream_ok);
  EXPECT_EQ(own.number, record.number);
  EXPECT_NEAR(own.position[0], 1.0, 1e-6);
  EXPECT_EQ(own.position[2], 0.0);
  EXPECT_NEAR(own.angles[0], kQuarter, 1e-6);
  EXPECT_EQ(own.flags, record.flags & ~unsigned{kinetrel_filtered});
  // The other sensor's device pose is its record's.
  const kinetrel_record other = Next(1, kinetrel_filtered, false);
  ASSERT_EQ(kinetrel_stream_device_pose(&stream_, &other, &own), kinetrel_stream_ok);
  EXPECT_EQ(own.position[0], other.position[0]);

  // The block has the same pose in the device's unit.
  SharedTrackReader reader(slot_.device());
  SharedTrackBlock block{};
  EXPECT_TRUE(WaitUntil([&] {
    return reader.OpenOnly(0) && reader.Copy(block, Milliseconds(1000)) && block.poses[0][2] != 0;
  }));
  EXPECT_NEAR(block.poses[0][1], 50.0, 1e-4);
  EXPECT_NEAR(block.poses[0][2], 200.0, 1e-4);
  EXPECT_NEAR(block.poses[0][3], kQuarter, 1e-6);
  EXPECT_EQ(block.poses[1][2], 0.0F);
  // The zero turns what is shown, not what the tip lies along.
  engine_.ZeroAzimuth();
  EXPECT_TRUE(WaitUntil([&] {
    const kinetrel_record zeroed = Next(0, kinetrel_filtered, true);
    return std::abs(zeroed.angles[0]) < 1e-6 && std::abs(zeroed.position[1] - 0.5) < 1e-6;
  }));
}

TEST_F(FilteredRun, TheZeroIsTheAzimuthThatTheFiltersMade) {
  Start({"rigid:rotation-deg=90/0/0,sensors=2"});  // the last sensor decides
  EXPECT_NEAR(std::abs(Next(1, kinetrel_filtered, true).angles[0]), 2 * kQuarter, 1e-5);
  EXPECT_TRUE(WaitUntil([&] {
    engine_.ZeroAzimuth();
    return std::abs(Next(1, kinetrel_filtered, true).angles[0]) < 1e-5;
  }));
  EXPECT_NEAR(Next(0, kinetrel_filtered, false).angles[0], -kQuarter, 1e-5);
}

// A lost sensor of some devices has records without a pose, one of others has no records at all.
TEST_F(FilteredRun, ALostSensorKeepsNoOldPoseInItsBlock) {
  Start({"rigid:translation-m=0/0/2,sensors=2", "dropout:time-s=1000000,sensors=2"});
  SharedTrackReader reader(slot_.device());
  SharedTrackBlock block{};
  const auto showsTheSensor = [&](bool shown) {
    return reader.OpenOnly(0) && reader.Copy(block, Milliseconds(1000)) && block.poses[0][0] != 0 &&
           (block.poses[1][2] != 0) == shown;
  };
  EXPECT_TRUE(WaitUntil([&] { return showsTheSensor(true); }));
  script_.lostSensors = 2;
  const int reads = reads_;
  EXPECT_TRUE(WaitUntil([&] { return reads_ > reads + 1000; }));
  EXPECT_TRUE(showsTheSensor(true));  // the dropout filter goes on for it
  untold_ = 2;
  const int more = reads_;
  EXPECT_TRUE(WaitUntil([&] { return reads_ > more + 1000; }));
  EXPECT_TRUE(showsTheSensor(true));
  EXPECT_TRUE(engine_.SetFilterAttributeDouble(kMappingOf1, 1, 2, 0.1));
  EXPECT_TRUE(WaitUntil([&] { return showsTheSensor(false); }));
  EXPECT_EQ(block.poses[1][0], 0.0F);
}

// The second sensor falls silent alone, then both do.
TEST_F(FilteredRun, ASilentSensorGoesOnForItsTimeAndIsInvalidOnce) {
  speed_ = 50.0;
  Start({"dropout:time-s=0.5,instead=extrapolate,sensors=2"});
  for (const unsigned silent : {2U, 3U}) {
    const kinetrel_record last = Next(1, kinetrel_position_valid, true);
    ASSERT_TRUE(
        WaitUntil([&] { return Next(1, kinetrel_filtered, true).frame > last.frame + 600; }));
    untold_ = silent;
    kinetrel_record record{};
    kinetrel_device_pose own{};
    int bridged = 0;
    for (;;) {
      record = Next(1, kinetrel_filtered, true);
      ASSERT_EQ(kinetrel_stream_device_pose(&stream_, &record, &own), kinetrel_stream_ok);
      if ((record.flags & kinetrel_position_valid) == 0 || testing::Test::HasFailure()) break;
      if ((own.flags & kinetrel_position_valid) != 0) continue;  // sent before it fell silent
      ++bridged;
      EXPECT_TRUE(std::isnan(own.position[0]) && std::isnan(own.orientation[0]));
      const double x =
          last.position[0] + 0.5 * static_cast<double>(record.sample_ns - last.sample_ns) * 1e-9;
      EXPECT_NEAR(record.position[0], x, 0.01) << "its speed goes on";
      EXPECT_NEAR(record.angles[0], kQuarter, 1e-5);
    }
    EXPECT_GT(bridged, 3);
    EXPECT_TRUE(std::isnan(record.position[0]) && std::isnan(record.orientation[0]));
    const int reads = reads_;
    EXPECT_TRUE(WaitUntil([&] { return reads_ > reads + 20; }));
    kinetrel_record newest;
    ASSERT_EQ(kinetrel_stream_newest(&stream_, 1, &newest), kinetrel_stream_ok);
    EXPECT_EQ(newest.number, record.number) << "nothing more is said of it";
    untold_ = 0;
    EXPECT_GT(Next(1, kinetrel_position_valid, true).number, record.number);
  }
}

TEST_F(FilteredRun, ChainsChangeWhileSamplingAndNoRecordIsLost) {
  Start({});
  const std::uint64_t first = Next(0, kinetrel_filtered, false).number;
  std::atomic<bool> done = false;
  std::thread host([&] {
    for (int round = 0; round < 200; ++round) {
      const int index = engine_.AddFilterNamed(kMappingOf0, "rigid:translation-m=1/0/0");
      EXPECT_EQ(index, 0);
      EXPECT_EQ(engine_.AddFilterNamed(kMappingOf0, "rigid:scale=2"), 1);
      const float tip[3] = {0, 0, static_cast<float>(round % 50)};
      EXPECT_TRUE(engine_.SetFilterAttributeFloatArray(kMappingOf0, 1, 4, 3, tip));
      EXPECT_TRUE(engine_.MoveFilter(kMappingOf0, 1, true));
      EXPECT_TRUE(engine_.EnableFilter(kMappingOf0, 1, false));
      EXPECT_TRUE(engine_.ClearFilter(kMappingOf0, 0));
      EXPECT_TRUE(engine_.ClearFilters(kMappingOf0));
      EXPECT_TRUE(engine_.SetMapping(kMappingOf1, round % 2));
    }
    done = true;
  });
  std::uint64_t number = first;
  kinetrel_record record{};
  while (!done && kinetrel_stream_next(&stream_, &record, 10'000) == kinetrel_stream_ok) {
    // A filter may come or go between the two sensors; the record itself is always whole.
    EXPECT_EQ(record.number, ++number);
    EXPECT_TRUE((record.flags & kinetrel_filtered) != 0 || std::abs(record.position[0] - 1) < 1e-6);
  }
  host.join();
  EXPECT_TRUE(done);
  EXPECT_EQ(kinetrel_stream_lost(&stream_), 0U);
  EXPECT_EQ(Next(0, kinetrel_filtered, false).sensor, 0U);
}

TEST_F(FilteredRun, TheStreamTellsHowLateFiltersMakeAMovingSensor) {
  Start({"one-euro:min-cutoff-hz=1,beta-hz-per-mps=0,sensors=2"});
  kinetrel_run run{};
  const auto lagOf = [&](unsigned sensor) {
    EXPECT_EQ(kinetrel_stream_run(&stream_, &run), kinetrel_stream_ok);
    return kinetrel_run_filter_lag(&run, sensor);
  };
  EXPECT_EQ(lagOf(1), 0.0);
  speed_ = 50.0;
  constexpr double kLag = 1.0 / (2.0 * kPi);  // s, of a low-pass filter of 1 Hz
  EXPECT_TRUE(WaitUntil([&] { return std::abs(lagOf(1) - kLag) < 0.1 * kLag; })) << lagOf(1);
  EXPECT_EQ(lagOf(0), 0.0);
  EXPECT_EQ(lagOf(32), 0.0);
  ASSERT_TRUE(engine_.ClearFilters(kMappingOf1));
  EXPECT_TRUE(WaitUntil([&] { return lagOf(1) == 0.0; }));
}

TEST_F(FilteredRun, TheFirstMappingWithAFilterDecidesWhatTheStreamShows) {
  Start({});
  const int late[] = {0, 3, 0};
  const int early[] = {0, 2, 9};
  ASSERT_TRUE(engine_.SetMapping(late, 0));
  ASSERT_TRUE(engine_.SetMapping(early, 0));
  ASSERT_EQ(engine_.AddFilterNamed(late, "rigid:scale=3"), 0);
  EXPECT_NEAR(Next(0, kinetrel_filtered, true).position[0], 3.0, 1e-6);
  ASSERT_EQ(engine_.AddFilterNamed(early, "rigid:scale=2"), 0);
  EXPECT_TRUE(WaitUntil([&] { return Next(0, kinetrel_filtered, true).position[0] < 2.0 + 1e-6; }));
}

TEST_F(FilteredRun, BadTextsAreRefusedWithTheReason) {
  Start({});
  struct Row {
    const char* text;
    const char* said;
  };
  for (const Row& row : {
           Row{"smooth", "AddFilterNamed: There is no filter \"smooth\"."},
           Row{"rigid:size=2", "AddFilterNamed: rigid has no parameter \"size\"."},
           Row{"rigid:scale=0", "AddFilterNamed: scale takes 1 number from 0.001 to 1000."},
           Row{"rigid:scale=nan", "AddFilterNamed: scale takes 1 number"},
           Row{"rigid:tip-m=1/2", "AddFilterNamed: tip-m takes 3 numbers"},
           Row{"rigid:tip-m=1/2/3/4", "AddFilterNamed: tip-m takes 3 numbers"},
       }) {
    EXPECT_EQ(engine_.AddFilterNamed(kMappingOf0, row.text), -1) << row.text;
    EXPECT_TRUE(engine_.status().Newest().text.starts_with(row.said))
        << engine_.status().Newest().text;
  }
  EXPECT_EQ(engine_.AddFilterNamed(kMappingOf0, nullptr), -1);
  const int nowhere[] = {0, 5, 5};
  EXPECT_EQ(engine_.AddFilterNamed(nowhere, "rigid"), -1);
}

TEST_F(FilteredRun, AFilterThatCannotWorkSaysSoOnceAndThePosePasses) {
  // Only positions: a tip cannot be placed.
  Start({"rigid:tip-m=0.5/0/0,sensors=1"});
  ASSERT_TRUE(engine_.SetAttributeInt(static_cast<int>(EngineAttribute::ComponentMask),
                                      static_cast<int>(kPositionComponent)));
  const kinetrel_record record = Next(0, kinetrel_filter_failed, true);
  EXPECT_NEAR(record.position[0], 1.0, 1e-6);
  EXPECT_EQ(FirstLine("cannot work"),
            "Filter rigid cannot work on sensor 1: without an orientation it cannot place the tip. "
            "Poses pass unfiltered.");
  const auto entries = engine_.status().Entries().size();
  const int reads = reads_;
  EXPECT_TRUE(WaitUntil([&] { return reads_ > reads + 100; }));
  EXPECT_EQ(engine_.status().Entries().size(), entries);
}

}  // namespace
}  // namespace kinetrel::test

// kinetrel-watch over the record stream: a process beside the writer of the stream in this one.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "publish/record_stream_writer.h"
#include "tests/watch/tracker.h"

namespace kinetrel::test {
namespace {

class StreamWatch : public testing::Test {
 protected:
  void OpenWriter() {
    auto opened = RecordStreamWriter::Open(slot_.device());
    ASSERT_TRUE(opened.Ok()) << Describe(opened.status());
    writer_ = std::move(*opened);
    writer_->ChangeRun([](kinetrel_run& run) {
      std::snprintf(run.device_name, sizeof run.device_name, "Test \x1b[2Jtracker");
    });
    writer_->AddLogLine(0, -3, "The port has gone.");
    writer_->SetState(kinetrel_state_running, "All is well.");
  }
  void Publish(unsigned flags = 0) {
    kinetrel_record record{};
    record.frame = 7;
    record.sensor = 2;
    record.sample_ns = kinetrel_now_ns();
    record.position[0] = 1.5;
    record.orientation[0] = 1;
    record.flags = kinetrel_position_valid | kinetrel_orientation_valid | flags;
    writer_->Publish({&record, 1});
  }
  std::unique_ptr<ChildProcess> Start(Strings arguments = {}) const {
    arguments.insert(arguments.end(), {"--slot", std::to_string(slot_.slot())});
    return std::make_unique<ChildProcess>("kinetrel-watch", arguments);
  }
  // Publishes until the watch, which takes what comes from its start on, has shown one.
  bool PublishUntilEnded(ChildProcess& watch, unsigned flags = 0) {
    return WaitUntil([&] {
      Publish(flags);
      return watch.Wait(std::chrono::milliseconds(1)) != ChildProcess::kStillRuns;
    });
  }

  const FreeSlot slot_;
  std::unique_ptr<RecordStreamWriter> writer_;
};

TEST_F(StreamWatch, TellsRecordsStatesAndReasons) {
  const auto watch = Start();
  ASSERT_TRUE(watch->ExpectError("waiting for a tracker on slot " + std::to_string(slot_.slot())));
  OpenWriter();
  ASSERT_TRUE(watch->ExpectError("running: All is well."));
  Publish();
  const std::string record = "record 1 frame 7 sensor 3 age ";
  ASSERT_TRUE(watch->ExpectOutput(record));
  EXPECT_LT(std::stod(watch->output().substr(record.size())), 20);
  ASSERT_TRUE(watch->ExpectOutput(
      " position 1.50000 0.00000 0.00000 angles 0.00000 0.00000 0.00000 quaternion 1.00000"));
  writer_->SetState(kinetrel_state_silent, "Check the cable.");
  EXPECT_TRUE(watch->ExpectError("silent: Check the cable."));
  writer_.reset();
  EXPECT_TRUE(watch->ExpectError("stopped: "));
  OpenWriter();
  Publish();
  EXPECT_TRUE(WaitUntil([&] { return Occurrences(watch->output(), record) == 2; }));
}

TEST_F(StreamWatch, JsonIsWholeWhateverTheNamesHold) {
  OpenWriter();
  const auto watch = Start({"--json", "--once"});
  ASSERT_TRUE(PublishUntilEnded(*watch));
  const std::string line = watch->output();
  EXPECT_TRUE(line.ends_with(R"("position":[1.5,0,0],"angleUnit":"radian","angles":[0,0,0],)"
                             R"("quaternion":[1,0,0,0]})"
                             "\n"))
      << line;
  EXPECT_TRUE(Contains(line, R"("device":"Test ?[2Jtracker")")) << line;
  EXPECT_TRUE(Contains(line, R"("buttons":null)")) << line;
}

TEST_F(StreamWatch, JsonTellsTheLagOfFilters) {
  OpenWriter();
  writer_->SetFilterLag(2, 0.0012);
  writer_->SetState(kinetrel_state_running, "Now with filters.");
  const auto plain = Start({"--json", "--once"});
  ASSERT_TRUE(PublishUntilEnded(*plain));
  EXPECT_TRUE(Contains(plain->output(), R"("filterLag":null,)")) << plain->output();
  ASSERT_TRUE(WaitUntil([&] {  // the run is written every second
    const auto watch = Start({"--json", "--once"});
    return PublishUntilEnded(*watch, kinetrel_filtered) &&
           Contains(watch->output(), R"("filterLag":0.0012,)");
  }));
}

TEST_F(StreamWatch, NamesTheSlotThatHasATracker) {
  OpenWriter();
  const FreeSlot empty;
  ChildProcess watch("kinetrel-watch", {"--slot", std::to_string(empty.slot())});
  ASSERT_TRUE(WaitUntil([&] { return Contains(watch.error(), " one: --slot "); })) << watch.error();
  // Other tests may publish in lower slots.
  const std::string words = watch.error().substr(watch.error().find(" ... Slot"));
  EXPECT_TRUE(Contains(words, " " + std::to_string(slot_.slot()))) << words;
}

TEST_F(StreamWatch, PrintsTheLogAndEnds) {
  OpenWriter();
  const auto watch = Start({"--log"});
  EXPECT_EQ(watch->Wait(), 0);
  EXPECT_EQ(watch->output(), "1970-01-01 00:00:00Z   -3  The port has gone.\n");
}

TEST_F(StreamWatch, GivesUpWhenNoRecordComes) {
  const auto watch = Start({"--timeout", "0.3"});
  EXPECT_EQ(watch->Wait(), 3);
  EXPECT_TRUE(watch->ExpectError("no record for 0.3 s"));
}

}  // namespace
}  // namespace kinetrel::test

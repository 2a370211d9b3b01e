// What kinetrel-view tells of trackers: JSON, messages, figures.
#include <gtest/gtest.h>
#include <kinetrel/stream.h>

#include <cstring>
#include <set>
#include <string>

#include "platform/stream_memory.h"
#include "tests/support/wait_until.h"
#include "tests/view/viewed_slot.h"

namespace kinetrel::test {
namespace {

class Trackers : public ViewedSlot {
 protected:
  // The same record out of the stream itself.
  kinetrel_record RecordNumber(std::uint64_t number) const {
    kinetrel_stream stream;
    kinetrel_record record{};
    EXPECT_EQ(kinetrel_stream_open(&stream, slot_.slot(), 0), kinetrel_stream_ok);
    kinetrel_stream_rewind(&stream);
    while (record.number < number &&
           kinetrel_stream_next(&stream, &record, 0) == kinetrel_stream_ok) {
    }
    kinetrel_stream_close(&stream);
    return record;
  }
};

TEST_F(Trackers, PosesAreThoseOfTheStream) {
  ChildProcess tracker("kinetrel", Simulated(slot_, {"-s0x5"}));
  Serve();
  ASSERT_TRUE(WaitUntil([&] { return Listed() != nullptr && Listed()["state"] == "running"; }));
  Json answer;
  ASSERT_TRUE(WaitUntil([&] {
    answer = GetJson(Slot());
    return answer["tracker"]["sensors"].size() == 2 && answer["frame"] != nullptr;
  }));
  EXPECT_EQ(answer["tracker"]["type"], 8);
  EXPECT_EQ(answer["tracker"]["sensors"][1]["sensor"], 3);
  EXPECT_GE(answer["log"].size(), 3U);
  const Json& sensor = answer["frame"]["sensors"][1];
  EXPECT_EQ(sensor["sensor"], 3);
  const kinetrel_record record = RecordNumber(sensor["record"]);
  ASSERT_EQ(record.number, sensor["record"]);
  EXPECT_EQ(record.sensor, 2U);
  EXPECT_EQ(record.frame, sensor["frame"]);
  EXPECT_EQ(record.flags, sensor["flags"]);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NEAR(sensor["position"][i], record.position[i], 1e-9);
    EXPECT_NEAR(sensor["angles"][i], record.angles[i], 1e-7);
  }
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_NEAR(sensor["quaternion"][i], record.orientation[i], 1e-7);
  }
  EXPECT_NEAR(sensor["sampleTime"], static_cast<double>(record.sample_ns) * 1e-9, 1e-6);
  EXPECT_NEAR(sensor["age"].get<double>(),
              answer["now"].get<double>() - sensor["sampleTime"].get<double>(), 1e-6);
  EXPECT_EQ(sensor["buttons"], nullptr);
}

TEST_F(Trackers, TextsOfATrackerCannotBreakTheAnswers) {
  OpenWriter();
  const std::string evil = "\xff\xc3\"\\\n</script><b>\x7f\xed\xa0\x80{}";
  writer_->ChangeRun([&](kinetrel_run& run) {
    std::snprintf(run.device_name, sizeof run.device_name, "%s", evil.c_str());
    std::memset(run.sensor_names, 0xC3, sizeof run.sensor_names);  // without an end
    run.sensor_mask = ~0U;
    run.unit = run.components = 0xFFFFFFFF;
    run.measured_rate = std::numeric_limits<double>::infinity();
    run.latency_mean = std::numeric_limits<double>::quiet_NaN();
    run.started_ns = INT64_MIN;
  });
  writer_->SetState(kinetrel_state_silent, evil.c_str());
  writer_->AddLogLine(0, -3, evil.c_str());
  kinetrel_record record{};
  record.sample_ns = INT64_MIN / 2;
  record.position[0] = std::numeric_limits<double>::infinity();
  record.position[1] = -1e300;
  record.flags = ~0U;
  writer_->Publish({&record, 1});
  Serve();
  const std::string text = "\uFFFD\uFFFD\"\\?</script><b>?";
  const Json answer = GetJson(Slot());
  EXPECT_TRUE(answer["tracker"]["name"].get<std::string>().starts_with(text));
  EXPECT_TRUE(answer["tracker"]["stateText"].get<std::string>().starts_with(text));
  EXPECT_TRUE(answer["log"][0]["text"].get<std::string>().starts_with(text));
  EXPECT_EQ(answer["frame"]["sensors"][0]["position"], Json::parse("[null,-1e300,0]"));
  WebClient viewer = Watch();
  EXPECT_EQ(Next(viewer, "frame")["sensors"][0]["position"][0], nullptr);

  const std::string metrics = Get("/metrics").body;
  ChildProcess promtool("/usr/bin/promtool", {"check", "metrics"});
  promtool.Send(metrics);
  promtool.CloseInput();
  EXPECT_EQ(promtool.Wait(), 0) << promtool.error() << promtool.output() << metrics;
  EXPECT_EQ(promtool.error(), "");
}

TEST_F(Trackers, FiguresAreTheRuns) {
  OpenWriter();
  writer_->SetBytes(1000, 50);
  writer_->NoteFailedRead();
  writer_->NoteDropped(7);
  writer_->NoteRecovery();
  writer_->SetFilterLag(1, 0.0012);
  Publish(1, 2);
  const std::int64_t sampled = kinetrel_now_ns();
  writer_->NoteFrame(sampled);
  writer_->NoteFrame(sampled + 10'000'000);
  writer_->ChangeRun([](kinetrel_run& run) {
    run.nominal_rate = 120;
    run.sensor_mask = 3;
  });
  Serve();
  const std::string slot = "slot=\"" + std::to_string(slot_.slot()) + "\"";
  EXPECT_TRUE(WaitUntil([&] { return Figure("kinetrel_received_bytes_total", slot) == 1000; }));
  EXPECT_EQ(Figure("kinetrel_rate_hertz", slot), 100);
  EXPECT_EQ(GetJson(Slot())["tracker"]["rate"], 100);
  EXPECT_EQ(GetJson(Slot())["tracker"]["jitter"], 0);
  EXPECT_EQ(Figure("kinetrel_filter_lag_seconds", slot + ",sensor=\"2\""), 0.0012);
  EXPECT_EQ(Figure("kinetrel_filter_lag_seconds", slot + ",sensor=\"1\""), -1) << "no lag";
  EXPECT_EQ(GetJson(Slot())["tracker"]["sensors"][1]["filterLag"], 0.0012);
  writer_->SetState(kinetrel_state_recovering, "The port has gone.");
  EXPECT_EQ(Figure("kinetrel_rate_hertz", slot), 0);
  for (const char* const member : {"rate", "jitter", "latencyMean"}) {
    EXPECT_EQ(GetJson(Slot())["tracker"][member], nullptr) << member;
  }
  EXPECT_EQ(Figure("kinetrel_sent_bytes_total", slot), 50);
  EXPECT_EQ(Figure("kinetrel_frames_total", slot), 2);
  EXPECT_EQ(Figure("kinetrel_failed_reads_total", slot), 1);
  EXPECT_EQ(Figure("kinetrel_dropped_records_total", slot), 7);
  EXPECT_EQ(Figure("kinetrel_recoveries_total", slot), 1);
  EXPECT_EQ(Figure("kinetrel_nominal_rate_hertz", slot), 120);
  EXPECT_EQ(Figure("kinetrel_state", slot + ",state=\"recovering\""), 1);
  EXPECT_EQ(Figure("kinetrel_state", slot + ",state=\"running\""), 0);
  const double age = Figure("kinetrel_age_seconds", slot + ",sensor=\"2\"");
  EXPECT_GT(age, 0);
  EXPECT_GT(Figure("kinetrel_age_seconds", slot + ",sensor=\"2\""), age);
  EXPECT_GE(Figure("kinetrel_latency_seconds", slot + ",quantile=\"0.99\""), 0);
}

TEST_F(Trackers, ComeAndGoWhileTheyAreWatched) {
  Serve();
  EXPECT_EQ(Listed(), nullptr);
  WebClient viewer = Watch();
  EXPECT_EQ(Next(viewer, "status")["tracker"]["state"], "none");
  OpenWriter();
  writer_->AddLogLine(0, 1, "First.");
  Json status;
  while (status["tracker"]["state"] != "running") status = Next(viewer, "status");
  EXPECT_EQ(status["tracker"]["stateText"], "All is well.");
  const std::string first = status["tracker"]["instance"];
  EXPECT_EQ(Next(viewer, "log")["lines"][0]["text"], "First.");
  Publish(1);
  EXPECT_EQ(Next(viewer, "frame")["frame"], 1);
  writer_->AddLogLine(0, -3, "Second.");
  Json log = Next(viewer, "log");
  ASSERT_EQ(log["lines"].size(), 1U);
  EXPECT_EQ(log["lines"][0]["text"], "Second.");
  EXPECT_EQ(log["lines"][0]["code"], -3);
  writer_->SetState(kinetrel_state_silent, "Check the cable.");
  while (status["tracker"]["state"] != "silent") status = Next(viewer, "status");
  EXPECT_EQ(status["tracker"]["stateText"], "Check the cable.");
  writer_.reset();
  while (status["tracker"]["state"] != "stopped") status = Next(viewer, "status");
  EXPECT_EQ(Listed(), nullptr);
  OpenWriter();
  while (status["tracker"]["state"] != "running") status = Next(viewer, "status");
  writer_->AddLogLine(0, 1, "Anew.");  // after the empty log of this run was told
  log = Next(viewer, "log");
  EXPECT_NE(log["instance"], first);
  EXPECT_EQ(log["lines"][0]["text"], "Anew.");
  Publish(1);
  EXPECT_EQ(Next(viewer, "frame")["frame"], 1);
}

TEST_F(Trackers, NewViewerGetsNoPoseOfAnEarlierRun) {
  OpenWriter();
  Publish(1);
  Serve();
  WebClient first = Watch();
  EXPECT_EQ(Next(first, "frame")["frame"], 1);
  const std::string before = Next(first, "status")["tracker"]["instance"];
  writer_.reset();
  OpenWriter();
  while (Next(first, "status")["tracker"]["instance"] == before) {
  }
  WebClient second = Watch();
  EXPECT_NE(Next(second, "status")["tracker"]["instance"], before);
  second.SendFrame(9, "");  // what the server had to show came before the answer
  for (WebClient::Frame frame; (frame = second.ReceiveFrame()).opcode == 1;) {
    EXPECT_NE(Json::parse(frame.payload)["type"], "frame");
  }
  Publish(2);
  EXPECT_EQ(Next(second, "frame")["frame"], 2);
}

// The second viewer comes before the feed's thread has noticed that the first one left.
TEST_F(Trackers, NextViewerGetsAllThatTheLastOneGot) {
  OpenWriter();
  writer_->AddLogLine(0, 1, "First.");
  Publish(1);
  Serve();
  for (int i = 0; i < 20; ++i) {
    WebClient viewer = Watch();
    ASSERT_EQ(Next(viewer, "log")["lines"][0]["text"], "First.");
    ASSERT_EQ(Next(viewer, "frame")["frame"], 1);
  }
}

TEST_F(Trackers, FramesArePassedOverAndNeverQueued) {
  OpenWriter();
  Serve();
  WebClient viewer = Watch();
  std::atomic<bool> stop = false;
  std::thread fast([&] {
    for (std::uint64_t frame = 1; !stop; ++frame) {
      Publish(frame, 32);
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  const double start = Next(viewer, "frame")["now"];
  Json frame;
  std::uint64_t last = 0;
  for (int i = 0; i < 60; ++i) {
    frame = Next(viewer, "frame");
    EXPECT_GT(frame["frame"], last);  // no frame twice, none older
    last = frame["frame"];
    EXPECT_EQ(frame["sensors"].size(), 32U);
  }
  stop = true;
  fast.join();
  EXPECT_GE(frame["now"].get<double>() - start, 58.0 / 60);
}

// However much the system's buffers would take for it.
TEST_F(Trackers, ViewerThatReadsLateFindsFewOldFrames) {
  OpenWriter();
  Serve();
  WebClient late = Watch();
  WebClient viewer = Watch();
  constexpr std::uint64_t kLast = 60;
  for (std::uint64_t frame = 1; frame <= kLast; ++frame) {
    Publish(frame);
    while (Next(viewer, "frame")["frame"] < frame) {
    }
  }
  int old = 0;
  while (Next(late, "frame")["frame"] < kLast) ++old;
  EXPECT_LE(old, 8);
}

TEST_F(Trackers, PausedViewerGetsNothing) {
  OpenWriter();
  Serve();
  WebClient viewer = Watch();
  Publish(1);
  EXPECT_EQ(Next(viewer, "frame")["frame"], 1);
  viewer.SendFrame(1, "pause");
  viewer.SendFrame(9, "");  // the answer to a ping tells that the word was read
  while (viewer.ReceiveFrame().opcode != 10) {
  }
  WebClient other = Watch();  // shows when the frame has been told
  Publish(2);
  while (Next(other, "frame")["frame"] != 2) {
  }
  viewer.SendFrame(9, "");
  EXPECT_EQ(viewer.ReceiveFrame().opcode, 10);
  viewer.SendFrame(1, "resume");
  EXPECT_EQ(Json::parse(viewer.ReceiveFrame().payload)["type"], "status");
  EXPECT_EQ(Next(viewer, "frame")["frame"], 2);
}

TEST_F(Trackers, ResumedViewerGetsOnlyTheLinesThatAreNew) {
  OpenWriter();
  Serve();
  WebClient viewer = Watch();
  for (int i = 1; i <= 5; ++i) {
    writer_->AddLogLine(0, i, "Line.");
    const Json lines = Next(viewer, "log")["lines"];
    ASSERT_EQ(lines.size(), 1U) << lines;
    EXPECT_EQ(lines[0]["code"], i);
    viewer.SendFrame(1, "pause");
    viewer.SendFrame(1, "resume");
  }
}

TEST_F(Trackers, ViewersOfOtherWordsAreClosed) {
  Serve();
  for (const char* const word : {"", "Pause", "pause ", "{\"type\":\"pause\"}"}) {
    WebClient viewer = Watch();
    viewer.SendFrame(1, word);
    WebClient::Frame frame;
    while ((frame = viewer.ReceiveFrame()).opcode == 1) {
    }
    ASSERT_EQ(frame.opcode, 8) << word;
    EXPECT_EQ(frame.payload.substr(0, 2), "\x03\xF0") << word;  // 1008
  }
  for (const std::string& bytes :
       {std::string("\x81\x05pause"), "\x81\xFF" + std::string(12, '\x7F'),
        std::string(100, '\xFF')}) {
    WebClient viewer = Watch();
    viewer.Send(bytes);  // not masked, of 2^63 bytes, no frame at all
    EXPECT_TRUE(viewer.AwaitClosed());
  }
}

TEST_F(Trackers, ViewerThatReadsNothingIsDropped) {
  OpenWriter();
  Serve({"--patience", "3"});
  WebClient stopped = Watch();
  WebClient chatty = Watch();  // confirms without reading
  WebClient viewer = Watch();
  EXPECT_EQ(Json::parse(viewer.ReceiveFrame().payload)["type"], "status");
  const auto viewers = [&] {
    const std::string text = Get("/metrics").body;
    return std::stoi(text.substr(text.find("\nkinetrel_view_viewers ") + 23));
  };
  EXPECT_EQ(viewers(), 3);
  std::uint64_t frame = 0;
  EXPECT_TRUE(WaitUntil([&] {
    Publish(++frame, 32);
    Next(viewer, "frame");
    chatty.SendFrame(1, "resume");
    chatty.SendFrame(10, std::to_string(frame));
    return viewers() == 1;
  }));
  Publish(++frame);
  EXPECT_EQ(Next(viewer, "frame")["type"], "frame");
}

TEST_F(Trackers, UnreadableStreamIsToldInWords) {
  auto memory = StreamMemory::Create(StreamName(slot_.device()), 1 << 20);
  ASSERT_TRUE(memory.Ok()) << Describe(memory.status());
  auto* const head = static_cast<kinetrel_stream_head*>(memory->data());
  head->version = kinetrel_stream_version + 1;
  head->head_size = sizeof *head;
  head->total_size = 1 << 20;
  head->instance = 1;
  std::memcpy(head->magic, "KINETREL", 8);
  memory->Offer();
  Serve();
  const std::string words = "newer version: a later Kinetrel writes this stream";
  EXPECT_EQ(Listed(),
            (Json{{"slot", slot_.slot()}, {"state", "unreadable"}, {"stateText", words}}));
  EXPECT_EQ(Get(Slot()).status, 503);
  WebClient viewer = Watch();
  const double told = Next(viewer, "status")["now"];
  const Json again = Next(viewer, "status");
  EXPECT_EQ(again["tracker"]["stateText"], words);
  EXPECT_GE(again["now"].get<double>() - told, 0.9);  // once a second
}

}  // namespace
}  // namespace kinetrel::test

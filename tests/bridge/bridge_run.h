// kinetrel-bridge in a process of its own, and the tracker that it reads in this one.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/stream_socket.h"
#include "publish/record_stream_writer.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {

using Strings = std::vector<std::string>;

// A tracker whose poses the test decides.
class KnownTracker {
 public:
  explicit KnownTracker(const FreeSlot& slot) {
    auto opened = RecordStreamWriter::Open(slot.device());
    if (!opened.Ok()) throw std::runtime_error(Describe(opened.status()));
    writer_ = std::move(*opened);
    SetState(kinetrel_state_running, "All is well.");
  }

  // One frame: a pose of each sensor from 0 on, all at (x, -0.25, 2), turned by (0, 0, 0.6, 0.8).
  // Behind them come sensors that are out of the device's sight. Returns the time of the sample.
  std::int64_t Publish(double x, unsigned sensors = 1, unsigned unseen = 0) {
    std::vector<kinetrel_record> records;
    for (unsigned sensor = 0; sensor < sensors + unseen; ++sensor) {
      records.push_back(Record(x, sensor));
      if (sensor >= sensors) records.back().flags = 0;
    }
    ++frame_;
    writer_->Publish(records);
    return records[0].sample_ns;
  }

  void SetState(kinetrel_state state, const char* sentence) { writer_->SetState(state, sentence); }
  void SetUnit(std::uint32_t unit) {
    writer_->ChangeRun([&](kinetrel_run& run) { run.unit = unit; });
  }

  std::uint32_t flags = kinetrel_position_valid | kinetrel_orientation_valid;
  std::uint32_t buttons = 0;
  std::uint32_t buttonsKnown = 0;
  std::int64_t sampleNs = 0;  // of every pose; 0: now

 private:
  kinetrel_record Record(double x, unsigned sensor) const {
    kinetrel_record record{};
    record.frame = frame_;
    record.sensor = sensor;
    record.sample_ns = sampleNs != 0 ? sampleNs : kinetrel_now_ns();
    record.position[0] = x;
    record.position[1] = -0.25;
    record.position[2] = 2;
    record.orientation[0] = 0.8F;
    record.orientation[3] = 0.6F;
    record.flags = flags;
    record.buttons = buttons;
    record.buttons_known = buttonsKnown;
    if (buttonsKnown != 0) record.flags |= kinetrel_buttons_valid;
    return record;
  }

  std::unique_ptr<RecordStreamWriter> writer_;
  std::uint64_t frame_ = 1;
};

// A TCP and UDP port that was free a moment ago.
inline std::uint16_t FreePort() {
  const auto listener = StreamListener::Open("127.0.0.1", 0);
  if (!listener.Ok()) throw std::runtime_error(Describe(listener.status()));
  return listener.value().port();
}

class BridgeRun : public testing::Test {
 protected:
  void OpenTracker() {
    tracker_.reset();
    tracker_ = std::make_unique<KnownTracker>(slot_);
  }

  std::unique_ptr<ChildProcess> Start(Strings arguments) const {
    arguments.insert(arguments.begin(), {"--slot", std::to_string(slot_.slot())});
    return std::make_unique<ChildProcess>("kinetrel-bridge", std::move(arguments));
  }

  // Until the bridge reads the tracker.
  static bool ExpectRunning(ChildProcess& bridge) { return bridge.ExpectError(": running"); }

  const FreeSlot slot_;
  std::unique_ptr<KnownTracker> tracker_;
};

}  // namespace kinetrel::test

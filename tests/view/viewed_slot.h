// kinetrel-view in a process of its own, and the trackers that it shows.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "publish/record_stream_writer.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/view/web_client.h"

namespace kinetrel::test {

using Json = nlohmann::json;

class ViewedSlot : public testing::Test {
 protected:
  // A killed tracker may have left its stream in the slot.
  void SetUp() override { ASSERT_TRUE(RecordStreamWriter::Open(slot_.device()).Ok()); }

  // Starts the server on a free port.
  void Serve(std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"--port", "0"});
    server_ = std::make_unique<ChildProcess>("kinetrel-view", options);
    ASSERT_TRUE(server_->ExpectOutput("\n"));
    address_ = server_->output().substr(0, server_->output().find('\n'));
    port_ = std::stoi(address_.substr(address_.find(':', 7) + 1));
  }

  WebClient Connect() const { return WebClient(port_); }
  WebAnswer Get(const std::string& target, const std::string& fields = "") const {
    return Connect().Get(target, fields);
  }
  Json GetJson(const std::string& target) const { return Json::parse(Get(target).body); }

  std::string Slot() const { return "/api/trackers/" + std::to_string(slot_.slot()); }

  // This slot's entry of the list; null: none.
  Json Listed() const {
    const Json answer = GetJson("/api/trackers");
    for (const Json& tracker : answer["trackers"]) {
      if (tracker["slot"] == slot_.slot()) return tracker;
    }
    return nullptr;
  }

  // The value of a figure of this slot in /metrics; -1: it is not there.
  double Figure(const std::string& name, const std::string& labels) const {
    const std::string text = Get("/metrics").body;
    const std::string line = "\n" + name + "{" + labels + "} ";
    const std::size_t at = text.find(line);
    return at == std::string::npos ? -1 : std::stod(text.substr(at + line.size()));
  }

  void OpenWriter() {
    auto opened = RecordStreamWriter::Open(slot_.device());
    ASSERT_TRUE(opened.Ok()) << Describe(opened.status());
    writer_ = std::move(*opened);
    writer_->SetState(kinetrel_state_running, "All is well.");
  }

  // One frame of `sensors` sensors, with its number as every x.
  void Publish(std::uint64_t frame, unsigned sensors = 1) {
    std::vector<kinetrel_record> records(sensors);
    for (unsigned i = 0; i < sensors; ++i) {
      records[i].frame = frame;
      records[i].sensor = i;
      records[i].sample_ns = kinetrel_now_ns();
      records[i].position[0] = static_cast<double>(frame);
      records[i].orientation[0] = 1;
      records[i].flags = kinetrel_position_valid | kinetrel_orientation_valid;
    }
    writer_->Publish(records);
  }

  // A viewer of this slot that has its WebSocket.
  WebClient Watch() const {
    WebClient client = Connect();
    EXPECT_EQ(client.Upgrade(Slot() + "/frames").status, 101);
    return client;
  }

  // The next message of that type; others are passed over. Null: the connection ended.
  static Json Next(WebClient& viewer, const std::string& type) {
    for (;;) {
      const WebClient::Frame frame = viewer.ReceiveFrame();
      if (frame.opcode != 1) return nullptr;
      Json message = Json::parse(frame.payload);
      if (message["type"] == type) return message;
    }
  }

  const FreeSlot slot_;
  std::unique_ptr<ChildProcess> server_;
  std::string address_;
  int port_ = 0;
  std::unique_ptr<RecordStreamWriter> writer_;
};

}  // namespace kinetrel::test

// kinetrel-watch in a process of its own, the tracker that it watches in this one, and blocks that
// no honest writer makes.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "publish/shared_track_writer.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {

// What a tracker with sensors 1 and 3 publishes, everything included.
inline void FillBlock(SharedTrackBlock& block) {
  SetDeviceName(block, "Test tracker");
  block.sensorMask = 0x5;
  block.flags = 0x5 | 0x7 << 4 | 1 << 8 | TrackFlags::kButtonsValid;
  block.buttons = 0xB;
  block.frameRate = 60;
  std::ranges::copy(std::array{1.F, -2.5F, 3.F, 0.5F, -0.25F, 0.125F}, block.poses[0]);
  std::ranges::copy(std::array{-100.F, 200.F, -300.F, 3.14159F, 1.F, -1.F}, block.poses[2]);
  std::ranges::copy(std::array{0.5F, -0.5F, 0.5F, -0.5F}, block.quaternions[2]);
}

inline void FillWithNaN(SharedTrackBlock& block) {
  FillBlock(block);
  block.sensorMask = ~0U;
  for (auto& pose : block.poses) {
    std::ranges::fill(pose, std::numeric_limits<float>::quiet_NaN());
  }
  for (auto& quaternion : block.quaternions) {
    std::ranges::fill(quaternion, -std::numeric_limits<float>::infinity());
  }
  block.frameRate = std::numeric_limits<double>::infinity();
  block.sampleTime = block.publishTime = -std::numeric_limits<double>::quiet_NaN();
}

inline void FillWithEscapes(SharedTrackBlock& block) {
  FillBlock(block);
  // No 0 at the end: clear the screen, ring, C1 controls, a quote, a backslash, broken UTF-8.
  const std::string evil = "\x1b[2J\a\r\n\x9b\"\\\xff\xc3\x7f";
  for (std::size_t i = 0; i < sizeof block.deviceName; ++i) {
    block.deviceName[i] = evil[i % evil.size()];
  }
  std::ranges::fill(block.padding1, '\x1b');
}

inline void FillWithNoise(SharedTrackBlock& block) {
  std::mt19937 random(1);
  auto* const bytes = reinterpret_cast<unsigned char*>(&block);
  std::generate(bytes, bytes + sizeof block, [&] { return static_cast<unsigned char>(random()); });
}

class Tracker {
 public:
  explicit Tracker(const FreeSlot& slot) : writer_(slot.device(), 1) {
    if (!writer_.OpenAll()) throw std::runtime_error("no shared memory");
  }

  // False when another process held the bin for 5 s. frame: as the writer's Publish.
  bool Publish(void (*fill)(SharedTrackBlock&) = FillBlock, int frame = 0) {
    if (!writer_.Lock(Milliseconds(5000))) return false;
    const int count = writer_.block()->frameCount;
    fill(*writer_.block());
    writer_.block()->frameCount = count;
    const bool published = writer_.Publish(frame);
    return writer_.Unlock() && published;
  }

  // Publishes until `condition` holds: for a client that has yet to come into step.
  bool PublishUntil(const std::function<bool()>& condition) {
    return WaitUntil([&] { return condition() || !Publish(); }) && condition();
  }

 private:
  SharedTrackWriter writer_;
};

class PseudoTerminal;

using Strings = std::vector<std::string>;

inline bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

inline int Occurrences(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

inline Strings Lines(const std::string& text) {
  std::istringstream stream(text);
  Strings lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

class Watch : public testing::Test {
 protected:
  std::unique_ptr<ChildProcess> Start(Strings arguments = {}) const {
    return std::make_unique<ChildProcess>("kinetrel-watch", WithSlot(std::move(arguments)));
  }

  // On a terminal.
  std::unique_ptr<ChildProcess> Start(PseudoTerminal& terminal, Strings arguments = {}) const {
    return std::make_unique<ChildProcess>(
        "kinetrel-watch", WithSlot(std::move(arguments)),
        ChildProcess::Options{.terminal = &terminal, .environment = {{"TERM", "xterm"}}});
  }

  std::unique_ptr<ChildProcess> StartWriter(const std::string& periodMs) const {
    return std::make_unique<ChildProcess>("kinetrel-test-writer",
                                          Strings{std::to_string(slot_.device()), periodMs});
  }

  void OpenTracker() { tracker_ = std::make_unique<Tracker>(slot_); }

  // A watch that shows frames of the tracker.
  std::unique_ptr<ChildProcess> StartShowing() {
    if (!tracker_) OpenTracker();
    auto watch = Start();
    EXPECT_TRUE(tracker_->PublishUntil([&] { return !watch->output().empty(); }));
    return watch;
  }

  Strings WithSlot(Strings arguments) const {
    arguments.insert(arguments.end(), {"--block", "--slot", std::to_string(slot_.slot())});
    return arguments;
  }

  FreeSlot slot_;
  std::unique_ptr<Tracker> tracker_;
};

}  // namespace kinetrel::test

// The far end of a line that plays a fixed dialogue, in a thread of its own: expects these bytes,
// then sends those.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "devices/device_names.h"
#include "devices/tracker_device.h"
#include "tests/support/pseudo_terminal.h"

namespace kinetrel::test {

struct PeerStep {
  enum class Kind { Expect, Send, Wait, HangUp };
  Kind kind;
  std::string bytes = {};
  std::chrono::milliseconds time{0};
};
using Script = std::vector<PeerStep>;

inline Script Expect(std::string bytes) { return {{PeerStep::Kind::Expect, std::move(bytes)}}; }
inline Script Send(std::string bytes) { return {{PeerStep::Kind::Send, std::move(bytes)}}; }
inline Script Wait(std::chrono::milliseconds time) { return {{PeerStep::Kind::Wait, {}, time}}; }
inline Script HangUp() { return {{PeerStep::Kind::HangUp}}; }

inline Script operator+(Script first, const Script& then) {
  first.insert(first.end(), then.begin(), then.end());
  return first;
}

inline Script Answer(std::string request, std::string answer) {
  return Expect(std::move(request)) + Send(std::move(answer));
}

class ScriptedPeer {
 public:
  // Uses the far end of `line` until the verdict is given.
  ScriptedPeer(PseudoTerminal& line, Script script);
  ~ScriptedPeer();
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;

  // Waits for the end of the script. Empty when the bytes expected came, and no others before the
  // last of them; else what was wrong, readable. Bytes after the script's end are left in the line.
  const std::string& Verdict();

 private:
  void Play(const Script& script);
  bool PlayStep(const PeerStep& step);
  bool Take(const std::string& expected);

  PseudoTerminal& line_;
  std::string verdict_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

struct BootStory {
  const char* name;
  Script script;
  BootResult result;
};

struct FrameStory {
  const char* name;
  Script script;
  std::vector<long> frames;  // the numbers that the poses of sensor 0 tell
};

// A serial driver on a line whose far end a test plays.
template <typename Device>
class DeviceOnALine : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(device_.OpenPort(line_.path().c_str(), 115200), 1); }

  BootResult Boot(const Script& script) {
    ScriptedPeer peer(line_, script);
    const BootResult result = device_.Boot(0);
    EXPECT_EQ(peer.Verdict(), "");
    EXPECT_EQ(device_.IsBooted(), result == kBooted);
    return result;
  }

  // Reads until the frames of the story have come and the line is silent.
  template <typename Read>
  void ExpectFrames(const FrameStory& story, Read readMore) {
    ScriptedPeer peer(line_, story.script);
    std::vector<long> frames;
    const auto read = [&] {
      readMore(frames);
      return frames.size() >= story.frames.size();
    };
    WaitUntil(read);
    EXPECT_EQ(peer.Verdict(), "");
    EXPECT_EQ(frames, story.frames);
  }

  // The answer to a poll that failed is not read as the answer to the next one.
  void ExpectALateAnswerIsDropped(const std::string& late, const Script& then) {
    device_.Poll();
    EXPECT_EQ(device_.ReadFrame(nullptr), 0U);
    line_.Send(late);
    ASSERT_TRUE(WaitUntil([&] { return device_.InputQueueLength() == late.size(); }));
    ScriptedPeer peer(line_, then);
    device_.Poll();
    EXPECT_EQ(device_.ReadFrame(nullptr), 1U);
    EXPECT_EQ(peer.Verdict(), "");
  }

  PseudoTerminal line_;
  Device device_;
};

}  // namespace kinetrel::test

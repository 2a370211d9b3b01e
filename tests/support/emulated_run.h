// The whole road with real processes: kinetrel-emulate, kinetrel on its port, and this process as
// the client.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>
#include <chrono>
#include <csignal>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "publish/shared_track_reader.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {

// What a client gets until `count` frames have been published since its first one; fewer when they
// do not come in time. A client may oversleep frames: frameCount tells how many.
inline std::vector<SharedTrackBlock> WatchFrames(SharedTrackReader& reader, int count) {
  std::vector<SharedTrackBlock> seen;
  int last = 0;
  const auto enough = [&] {
    SharedTrackBlock block{};
    if (!reader.OpenOnly(0) || !reader.WaitForFrame(last, Milliseconds(100)) ||
        !reader.Copy(block, Milliseconds(1000)) || block.frameCount <= last) {
      return false;
    }
    last = block.frameCount;
    seen.push_back(block);
    return last - seen.front().frameCount >= count;
  };
  WaitUntil(enough, 3 * kPatience);
  return seen;
}

// A sanitizer's program may be so slow that several reports of a device are one frame to it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr std::chrono::seconds kTimeToEnd{9};
inline constexpr bool kMayLoseFrames = true;
#else
inline constexpr std::chrono::seconds kTimeToEnd{3};
inline constexpr bool kMayLoseFrames = false;
#endif

using Arguments = std::vector<std::string>;
using Environment = std::vector<std::pair<std::string, std::string>>;

class EmulatedRun {
 public:
  // Starts both; arguments beyond the device, its type, the port and the slot are the test's, as is
  // the tracker's environment beyond its port.
  EmulatedRun(const std::string& device, int type, Arguments ofEmulator = {},
              Arguments ofTracker = {}, Environment environment = {})
      : link_(MakeLink()), reader_(slot_.device()) {
    ofEmulator.insert(ofEmulator.begin(), {device, "--link", link_});
    emulator_.emplace("kinetrel-emulate", ofEmulator);
    WaitUntil([this] { return std::filesystem::is_symlink(link_); });
    ofTracker.insert(ofTracker.begin(),
                     {"-d", std::to_string(type), "-p", "1", "-w", std::to_string(slot_.slot())});
    environment.emplace_back("KINETREL_COM1", link_);
    tracker_.emplace("kinetrel", ofTracker,
                     ChildProcess::Options{.environment = environment, .emptyInput = true});
  }

  ~EmulatedRun() { ::unlink(link_.c_str()); }  // the emulator is killed, and leaves its link
  EmulatedRun(const EmulatedRun&) = delete;
  EmulatedRun& operator=(const EmulatedRun&) = delete;

  std::vector<SharedTrackBlock> Watch(int count) { return WatchFrames(reader_, count); }

  int slot() const { return slot_.slot(); }
  ChildProcess& emulator() { return *emulator_; }
  ChildProcess& tracker() { return *tracker_; }

  // Ends the tracker as a user would; its exit code.
  int Stop() {
    tracker_->Signal(SIGINT);
    return tracker_->Wait();
  }

 private:
  static std::string MakeLink() {
    static int runs = 0;
    const std::string name =
        "kinetrel-run-" + std::to_string(getpid()) + "-" + std::to_string(++runs);
    return std::filesystem::temp_directory_path() / name;
  }

  FreeSlot slot_;
  std::string link_;
  SharedTrackReader reader_;
  std::optional<ChildProcess> emulator_;
  std::optional<ChildProcess> tracker_;
};

// ---- With a vendor's library ---------------------------------------------------------------

class LibraryRun {
 public:
  LibraryRun(int type, Arguments arguments, Environment environment = {})
      : reader_(slot_.device()),
        program_("kinetrel", Complete(type, std::move(arguments)),
                 {.environment = std::move(environment), .emptyInput = true}) {}

  ChildProcess& program() { return program_; }
  const std::string& error() { return program_.error(); }
  const SharedTrackBlock& block() const { return block_; }

  std::vector<SharedTrackBlock> Watch(int count) { return WatchFrames(reader_, count); }

  // Waits until `count` more frames have been published; block() is the last of them.
  bool FramesPass(int count) {
    const auto seen = Watch(count);
    if (!seen.empty()) block_ = seen.back();
    return !seen.empty() && block_.frameCount - seen.front().frameCount >= count;
  }

  // Ends the program as a user would and returns its exit code.
  int Stop() {
    const auto before = std::chrono::steady_clock::now();
    program_.Signal(SIGINT);
    const int code = program_.Wait(std::chrono::seconds(30));
    EXPECT_LT(std::chrono::steady_clock::now() - before, kTimeToEnd);
    return code;
  }

 private:
  Arguments Complete(int type, Arguments arguments) {
    arguments.insert(arguments.begin(),
                     {"-d" + std::to_string(type), "-w" + std::to_string(slot_.slot())});
    return arguments;
  }

  FreeSlot slot_;
  SharedTrackReader reader_;
  ChildProcess program_;
  SharedTrackBlock block_{};
};

// ---- A library that fails ------------------------------------------------------------------

enum class Outcome { FramesCome, NoFrames, DoesNotStart };

struct Trouble {
  const char* name;
  const char* variable;  // of the substitute
  const char* value;
  Outcome outcome;
};

}  // namespace kinetrel::test

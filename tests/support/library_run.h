// kinetrel with a vendor's library in a process of its own, and this process as its client.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <utility>

#include "tests/support/emulated_run.h"

namespace kinetrel::test {

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

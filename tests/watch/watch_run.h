// kinetrel-watch in a process of its own, and the tracker that it watches.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/watch/tracker.h"

namespace kinetrel::test {

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

  bool PublishUntilShown(ChildProcess& watch) {
    return tracker_->PublishUntil([&] { return !watch.output().empty(); });
  }

  Strings WithSlot(Strings arguments) const {
    arguments.insert(arguments.end(), {"--slot", std::to_string(slot_.slot())});
    return arguments;
  }

  FreeSlot slot_;
  std::unique_ptr<Tracker> tracker_;
};

}  // namespace kinetrel::test

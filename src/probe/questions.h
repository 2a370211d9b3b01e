// The questions that tell one tracker from another, and the order in which they are harmless.
//
// No question writes to a device's permanent memory or restarts a device. On a line with rates a
// device hears the questions for slower devices first, as noise. That noise is harmless: seen at
// twice the rate or more, the first bit of every byte repeats the start bit, and all bytes that
// save or restart something (Ctrl-K, Ctrl-Y, Ctrl-W, Ctrl-S, W, K) have that bit set. A test
// computes what each device hears. docs/scan.md shows what each question does to each device.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "probe/finding.h"

namespace kinetrel {

// A question and its answer on a line that the caller has open.
//
// Sends `question`, after dropping what was received before. Returns what came until `isWhole` says
// that the answer is complete, the line was silent for `patience`, or too much came.
using Exchange = std::function<std::string(std::string_view question, Milliseconds patience,
                                           const std::function<bool(std::string_view)>& isWhole)>;

struct Question {
  Family family;
  std::vector<unsigned> rates;  // that units of the family are found at
  bool raisesRts;               // the InterTrax takes its power from RTS; RTS resets a bird
  std::string_view stop;        // ends a stream that this family was heard to send

  // Asks for the device's identity, and once it has answered for what else it tells of itself.
  std::optional<Finding> (*ask)(const Exchange& exchange);
};

struct Step {
  const Question* question;
  unsigned baud;
};

// In the order in which they are to be asked. The first device that answers is not asked anything
// else.
//
std::vector<Step> QuestionsInOrder();

// For a pseudo-terminal, whose far end hears all questions: each is asked once, at `baud`. Only the
// InterTrax is asked at its own rate, which restarts it.
std::vector<Step> QuestionsAt(unsigned baud);

}  // namespace kinetrel

// Questions and answers on an open line, serial or USB.
//
// Threads  one at a time.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/byte_line.h"
#include "probe/finding.h"
#include "probe/questions.h"

namespace kinetrel {

class Conversation {
 public:
  // line  outlives this object.
  explicit Conversation(ByteLine& line) : line_(line) {}

  // Appends what is received within `atMost`. False: nothing came, or the line is lost.
  bool TakeBytes(std::string& into, Milliseconds atMost);

  // Asks for the identity of a device of the question's family, at the rate that the line has.
  //
  // baud     of the line; 0: it has no rate.
  // streams  the device sends by itself: it is stopped first.
  std::optional<Finding> Ask(const Question& question, unsigned baud, bool streams);

  // The line was lost: nothing more can be found out.
  const Status& failure() const { return failure_; }

 private:
  void AwaitSilence();
  std::string Converse(std::string_view text, unsigned baud, Milliseconds patience,
                       const std::function<bool(std::string_view)>& isWhole);

  ByteLine& line_;
  Status failure_;
};

// Asks the device on a line without a rate. It is stopped first if it sends by itself.
std::optional<Finding> AskWithoutRate(ByteLine& line, Family family);

}  // namespace kinetrel

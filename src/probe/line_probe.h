// Finds out which tracker is at the far end of an open serial line: by listening, and by asking.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <vector>

#include "platform/serial_line.h"
#include "probe/conversation.h"
#include "probe/finding.h"
#include "probe/questions.h"

namespace kinetrel {

// What came at one rate.
struct Heard {
  unsigned baud = 0;
  std::size_t bytes = 0;
  bool wrongRate = false;  // most bytes had a wrong stop bit
};

// Threads  one at a time.
class LineProbe {
 public:
  // line      open, and outlives this object. Its settings change; closing it restores them.
  // hasRates  false for a pseudo-terminal, which carries any rate.
  // stop      asked between two rates and two questions: true ends the search.
  LineProbe(
      SerialLine& line, bool hasRates, std::function<bool()> stop = [] { return false; });
  LineProbe(const LineProbe&) = delete;
  LineProbe& operator=(const LineProbe&) = delete;

  // Listens at each rate for at most 1.5 s and writes nothing. Under 4 s for a silent line.
  std::optional<Finding> Listen();

  // Asks one family after the other, those of `only` if that is set. Under 8 s for a silent line.
  //
  // heard  what Listen found, whose family is then the only one that is asked.
  std::optional<Finding> Ask(const std::optional<Finding>& heard, std::optional<Family> only = {});

  const std::vector<Heard>& heard() const { return heard_; }  // at the rates where bytes came

  // The line was lost, or the rate is refused: nothing more can be found out.
  const Status& failure() const { return failure_.Ok() ? conversation_.failure() : failure_; }

 private:
  bool SetRate(unsigned baud, bool raiseRts);
  std::optional<Finding> ListenAt(unsigned baud);
  std::optional<Finding> AskOne(const Question& question, unsigned baud, bool streams);

  SerialLine& line_;
  Conversation conversation_;
  const bool hasRates_;
  const std::function<bool()> stop_;
  unsigned foundBaud_ = 0;  // the rate that the port was left with: it is listened to first
  std::vector<Heard> heard_;
  Status failure_;  // of a setting
};

}  // namespace kinetrel

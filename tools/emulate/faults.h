// What may go wrong on demand, and when.
//
// A rule is written KIND[:ARGUMENT]@WHEN:
//
//   noise[:BYTES]      random bytes come between the device's own (8)
//   garble[:BYTES]     random bytes come in place of the record's own (1)
//   cut[:BYTES]        of a record only so many bytes come (half of them)
//   silence[:SECONDS]  nothing comes (2)
//   error[:CODE]       the device reports an error of its own: a number or a character (its own)
//   restart            the device loses its power for a moment, and all that was set
//   unplug[:SECONDS]   the port is gone, and back after that time (2)
//
//   5s    at 5 seconds           /5s    every 5 seconds
//   #100  at the 100th record    /#100  at every 100th
//   1%    with this chance for each record
//   usr1, usr2  at that signal, or whenever somebody asks
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "emulate/time_and_chance.h"

namespace kinetrel::emulate {

enum class FaultKind { Noise, Garble, Cut, Silence, Error, Restart, Unplug };

struct Fault {
  FaultKind kind = FaultKind::Noise;
  std::optional<double> argument = {};

  double Or(double byItself) const { return argument.value_or(byItself); }
  bool operator==(const Fault&) const = default;
};

std::string_view NameOf(FaultKind kind);  // as a rule has it

// Of Silence and Unplug: seconds, as a time.
Moment Duration(const Fault& fault);

// "noise:8": nothing where it is no such text.
std::optional<Fault> ParseFault(std::string_view text);

enum class FaultTrigger { AtTime, EveryTime, AtRecord, EveryRecord, ByChance, ByFirst, BySecond };

struct FaultRule {
  Fault fault;
  FaultTrigger trigger = FaultTrigger::AtTime;
  double value = 0;  // seconds, records or a probability, as the trigger wants
};

std::optional<FaultRule> ParseFaultRule(std::string_view text);

// Says which faults are due. The same rules, seed and records give the same faults.
class FaultSchedule {
 public:
  FaultSchedule() : FaultSchedule({}, 0) {}
  FaultSchedule(std::vector<FaultRule> rules, std::uint64_t seed);

  Moment NextTime() const;                           // of the next fault that comes by time
  std::vector<Fault> TakeDue(Moment now);            // by time, up to `now`, each once
  std::vector<Fault> ForNextRecord();                // for the record that is about to be sent
  std::vector<Fault> For(FaultTrigger asked) const;  // ByFirst or BySecond

 private:
  struct Row {
    FaultRule rule;
    Moment next = kNever;
  };
  std::vector<Row> rows_;
  RandomSource random_;
  std::uint64_t records_ = 0;
};

}  // namespace kinetrel::emulate

// Faults on demand: which, and when.
//
// A rule is written KIND[:ARGUMENT]@WHEN:
//
//   noise[:BYTES]      random bytes come between the device's own (8)
//   garble[:BYTES]     random bytes replace bytes of a record (1)
//   cut[:BYTES]        only the first BYTES of a record come (half of it)
//   silence[:SECONDS]  nothing comes (2)
//   error[:CODE]       the device reports an error: a number or a character (the device chooses)
//   restart            the device loses its power for a moment, and all settings
//   unplug[:SECONDS]   the port disappears, and is back after that time (2)
//
//   5s    at 5 seconds           /5s    every 5 seconds
//   #100  at the 100th record    /#100  at every 100th
//   1%    with this chance for each record
//   usr1, usr2  at that signal, or when a caller asks
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

std::string_view NameOf(FaultKind kind);  // as rules write it

// How long a Silence or Unplug lasts.
Moment Duration(const Fault& fault);

// Reads a text such as "noise:8"; empty if it is not a fault.
std::optional<Fault> ParseFault(std::string_view text);

enum class FaultTrigger { AtTime, EveryTime, AtRecord, EveryRecord, ByChance, ByFirst, BySecond };

struct FaultRule {
  Fault fault;
  FaultTrigger trigger = FaultTrigger::AtTime;
  double value = 0;  // seconds, records or a probability: the trigger decides
};

std::optional<FaultRule> ParseFaultRule(std::string_view text);

// Says which faults are due. The same rules, seed and records give the same faults.
class FaultSchedule {
 public:
  FaultSchedule() : FaultSchedule({}, 0) {}
  FaultSchedule(const std::vector<FaultRule>& rules, std::uint64_t seed);

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

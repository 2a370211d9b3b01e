#include "emulate/faults.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "emulate/options.h"

namespace kinetrel::emulate {
namespace {

struct KindName {
  std::string_view name;
  FaultKind kind;
  double most;  // of the argument; 0: the fault takes no argument
};
constexpr double kMostBytes = 4096;
constexpr double kMostSeconds = 1'000'000;
constexpr KindName kKinds[] = {
    {"noise", FaultKind::Noise, kMostBytes},
    {"garble", FaultKind::Garble, kMostBytes},
    {"cut", FaultKind::Cut, kMostBytes},
    {"silence", FaultKind::Silence, kMostSeconds},
    {"error", FaultKind::Error, 255},
    {"restart", FaultKind::Restart, 0},
    {"unplug", FaultKind::Unplug, kMostSeconds},
};

constexpr double kLeastSeconds = 0.001;
constexpr double kMostRecords = 1e15;

Moment FromSeconds(double seconds) {
  return Moment(static_cast<std::int64_t>(std::llround(seconds * 1e9)));
}

// The code of an error may be the character that the device shows for it.
std::optional<double> ParseArgument(const KindName& kind, std::string_view text) {
  const bool isCharacter =
      text.size() == 1 && std::isdigit(static_cast<unsigned char>(text[0])) == 0;
  if (kind.kind == FaultKind::Error && isCharacter) return static_cast<unsigned char>(text[0]);
  return ParseNumber(text, 0.0, kind.most);
}

std::optional<FaultRule> ByCount(FaultRule rule, bool every, std::string_view text) {
  const bool byRecord = text.starts_with('#');
  if (!byRecord && !text.ends_with('s')) return std::nullopt;
  if (byRecord) {
    text.remove_prefix(1);
    rule.trigger = every ? FaultTrigger::EveryRecord : FaultTrigger::AtRecord;
  } else {
    text.remove_suffix(1);
    rule.trigger = every ? FaultTrigger::EveryTime : FaultTrigger::AtTime;
  }
  const double least = byRecord ? 1.0 : every ? kLeastSeconds : 0.0;
  const auto value = ParseNumber(text, least, byRecord ? kMostRecords : kMostSeconds);
  if (!value || (byRecord && std::floor(*value) != *value)) return std::nullopt;
  rule.value = *value;
  return rule;
}

std::optional<FaultRule> WithTrigger(FaultRule rule, std::string_view when) {
  if (when == "usr1" || when == "usr2") {
    rule.trigger = when == "usr1" ? FaultTrigger::ByFirst : FaultTrigger::BySecond;
    return rule;
  }
  if (when.ends_with('%')) {
    const auto percent = ParseNumber(when.substr(0, when.size() - 1), 0.0, 100.0);
    if (!percent) return std::nullopt;
    rule.trigger = FaultTrigger::ByChance;
    rule.value = *percent / 100;
    return rule;
  }
  const bool every = when.starts_with('/');
  return ByCount(rule, every, every ? when.substr(1) : when);
}

}  // namespace

std::string_view NameOf(FaultKind kind) {
  for (const KindName& row : kKinds) {
    if (row.kind == kind) return row.name;
  }
  return {};
}

Moment Duration(const Fault& fault) { return FromSeconds(fault.Or(2)); }

std::optional<Fault> ParseFault(std::string_view text) {
  const std::size_t colon = text.find(':');
  const auto named = [&](const KindName& kind) { return kind.name == text.substr(0, colon); };
  const auto kind = std::find_if(std::begin(kKinds), std::end(kKinds), named);
  if (kind == std::end(kKinds)) return std::nullopt;
  Fault fault{kind->kind};
  if (colon == std::string_view::npos) return fault;
  fault.argument = ParseArgument(*kind, text.substr(colon + 1));
  if (!fault.argument || kind->most == 0) return std::nullopt;
  return fault;
}

std::optional<FaultRule> ParseFaultRule(std::string_view text) {
  const std::size_t at = text.rfind('@');
  if (at == std::string_view::npos) return std::nullopt;
  const auto fault = ParseFault(text.substr(0, at));
  if (!fault) return std::nullopt;
  return WithTrigger(FaultRule{*fault}, text.substr(at + 1));
}

FaultSchedule::FaultSchedule(const std::vector<FaultRule>& rules, std::uint64_t seed)
    : random_(seed) {
  for (const FaultRule& rule : rules) {
    const bool byTime =
        rule.trigger == FaultTrigger::AtTime || rule.trigger == FaultTrigger::EveryTime;
    rows_.push_back({rule, byTime ? FromSeconds(rule.value) : kNever});
  }
}

Moment FaultSchedule::NextTime() const {
  Moment next = kNever;
  for (const Row& row : rows_) next = std::min(next, row.next);
  return next;
}

std::vector<Fault> FaultSchedule::TakeDue(Moment now) {
  std::vector<Fault> due;
  for (Row& row : rows_) {
    if (row.next > now) continue;
    due.push_back(row.rule.fault);
    const bool again = row.rule.trigger == FaultTrigger::EveryTime;
    row.next = again ? row.next + FromSeconds(row.rule.value) : kNever;
  }
  return due;
}

std::vector<Fault> FaultSchedule::ForNextRecord() {
  ++records_;
  std::vector<Fault> due;
  for (const Row& row : rows_) {
    const FaultRule& rule = row.rule;
    const auto count = static_cast<std::uint64_t>(rule.value);
    const bool isDue = (rule.trigger == FaultTrigger::AtRecord && records_ == count) ||
                       (rule.trigger == FaultTrigger::EveryRecord && records_ % count == 0) ||
                       (rule.trigger == FaultTrigger::ByChance && random_.Happens(rule.value));
    if (isDue) due.push_back(rule.fault);
  }
  return due;
}

std::vector<Fault> FaultSchedule::For(FaultTrigger asked) const {
  std::vector<Fault> faults;
  for (const Row& row : rows_) {
    if (row.rule.trigger == asked) faults.push_back(row.rule.fault);
  }
  return faults;
}

}  // namespace kinetrel::emulate

#include "vendor/substitute_settings.h"

#include <charconv>
#include <cstdlib>

namespace kinetrel::substitute {
namespace {

std::string_view TakeUpTo(std::string_view& text, char end) {
  const std::string_view head = text.substr(0, text.find(end));
  text.remove_prefix(head.size() < text.size() ? head.size() + 1 : head.size());
  return head;
}

std::uint64_t ParseNumber(std::string_view text, std::uint64_t fallback) {
  std::uint64_t number = fallback;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

}  // namespace

std::string_view Setting(const char* variable) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? text : std::string_view();
}

double NumberSetting(const char* variable, double fallback) {
  const std::string_view text = Setting(variable);
  return text.empty() ? fallback : std::strtod(text.data(), nullptr);
}

std::optional<PlannedFault> NextPlannedFault(std::string_view& list) {
  if (list.empty()) return std::nullopt;
  std::string_view item = TakeUpTo(list, ',');
  PlannedFault fault;
  fault.name = TakeUpTo(item, '@');
  fault.first = ParseNumber(TakeUpTo(item, '+'), 0);
  fault.count = ParseNumber(item, PlannedFault::kAll);
  return fault;
}

}  // namespace kinetrel::substitute

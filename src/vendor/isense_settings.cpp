#include "vendor/isense_settings.h"

#include <charconv>
#include <cstdlib>

namespace kinetrel::substitute {
namespace {

std::string_view TakeUpTo(std::string_view& text, char end) {
  const std::string_view head = text.substr(0, text.find(end));
  text.remove_prefix(head.size() < text.size() ? head.size() + 1 : head.size());
  return head;
}

std::uint64_t Number(std::string_view text, std::uint64_t without) {
  std::uint64_t number = without;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

}  // namespace

std::string_view Setting(const char* variable) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? text : std::string_view();
}

double NumberSetting(const char* variable, double without) {
  const std::string_view text = Setting(variable);
  return text.empty() ? without : std::strtod(text.data(), nullptr);
}

std::optional<Mishap> NextMishap(std::string_view& list) {
  if (list.empty()) return std::nullopt;
  std::string_view item = TakeUpTo(list, ',');
  Mishap mishap;
  mishap.name = TakeUpTo(item, '@');
  mishap.first = Number(TakeUpTo(item, '+'), 0);
  mishap.count = Number(item, Mishap::kAll);
  return mishap;
}

}  // namespace kinetrel::substitute

#include "platform/com_number.h"

#include <charconv>

namespace kinetrel {

std::optional<unsigned> ComNumber(const std::string& name) {
  if (!name.starts_with("COM")) return std::nullopt;
  unsigned number = 0;
  const char* const end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(name.data() + 3, end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

}  // namespace kinetrel

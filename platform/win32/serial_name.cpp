#include "platform/win32/serial_name.h"

#include <charconv>
#include <cstdlib>

namespace kinetrel {
namespace {

std::string ChosenName(const std::string& name) {
  if (!ComNumber(name)) return name;
  const char* const chosen = std::getenv(("KINETREL_" + name).c_str());
  return chosen != nullptr && *chosen != '\0' ? chosen : name;
}

}  // namespace

std::optional<unsigned> ComNumber(const std::string& name) {
  if (!name.starts_with("COM")) return std::nullopt;
  unsigned number = 0;
  const char* const end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(name.data() + 3, end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

std::string SerialDevicePath(const std::string& name) {
  const std::string chosen = ChosenName(name);
  return chosen.starts_with("\\\\") ? chosen : "\\\\.\\" + chosen;
}

}  // namespace kinetrel

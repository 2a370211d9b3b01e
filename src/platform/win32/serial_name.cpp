#include "platform/win32/serial_name.h"

#include <cstdlib>

#include "platform/com_number.h"

namespace kinetrel {
namespace {

std::string ChosenName(const std::string& name) {
  if (!ComNumber(name)) return name;
  const char* const chosen = std::getenv(("KINETREL_" + name).c_str());
  return chosen != nullptr && *chosen != '\0' ? chosen : name;
}

}  // namespace

std::string SerialDevicePath(const std::string& name) {
  const std::string chosen = ChosenName(name);
  return chosen.starts_with("\\\\") ? chosen : "\\\\.\\" + chosen;
}

}  // namespace kinetrel

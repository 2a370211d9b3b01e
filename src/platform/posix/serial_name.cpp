#include "platform/posix/serial_name.h"

#include <grp.h>
#include <sys/stat.h>

#include <cstdlib>
#include <optional>
#include <vector>

#include "platform/com_number.h"

namespace kinetrel {

std::string SerialDevicePath(const std::string& name) {
  const std::optional<unsigned> number = ComNumber(name);
  if (!number) return name;
  const std::string variable = "KINETREL_COM" + std::to_string(*number);
  const char* const chosen = std::getenv(variable.c_str());
  if (chosen != nullptr && *chosen != '\0') return chosen;
  return *number == 0 ? std::string() : "/dev/ttyS" + std::to_string(*number - 1);
}

std::string GroupThatMayUse(const std::string& path) {
  struct stat device {};
  if (::stat(path.c_str(), &device) != 0) return {};
  constexpr mode_t kBoth = S_IRGRP | S_IWGRP;
  if (device.st_gid == 0 || (device.st_mode & kBoth) != kBoth) return {};
  std::vector<char> text(4096);
  group entry{};
  group* found = nullptr;
  if (::getgrgid_r(device.st_gid, &entry, text.data(), text.size(), &found) != 0 || !found) {
    return std::to_string(device.st_gid);
  }
  return found->gr_name;
}

}  // namespace kinetrel

#include "platform/posix/joystick_calls.h"

#include <fcntl.h>
#include <linux/joystick.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <system_error>

#include "platform/posix/os.h"

namespace kinetrel {
namespace {

std::string JoystickDirectory() {
  const char* const chosen = std::getenv("KINETREL_JOYSTICKS");
  return chosen != nullptr && *chosen != '\0' ? chosen : "/dev/input";
}

// n of a name that is exactly "js<n>".
std::optional<unsigned> JoystickNumber(const std::string& name) {
  if (!name.starts_with("js")) return std::nullopt;
  unsigned number = 0;
  const char* const end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(name.data() + 2, end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

std::string AskName(int fd) {
  std::array<char, 128> name{};
  if (::ioctl(fd, JSIOCGNAME(sizeof(name) - 1), name.data()) < 0) return {};
  return name.data();
}

// A number of the bus, as the kernel shows it of the device that is open; in hexadecimal.
unsigned AskBusNumber(const struct stat& device, const char* which) {
  std::ifstream file("/sys/dev/char/" + std::to_string(major(device.st_rdev)) + ':' +
                     std::to_string(minor(device.st_rdev)) + "/device/id/" + which);
  unsigned number = 0;
  return file >> std::hex >> number ? number : 0;
}

}  // namespace

std::vector<std::string> JoystickPaths() {
  std::map<unsigned, std::string> found;
  std::error_code failure;
  std::filesystem::directory_iterator entry(JoystickDirectory(), failure);
  for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
    const std::optional<unsigned> number = JoystickNumber(entry->path().filename());
    if (number) found.try_emplace(*number, entry->path());
  }
  std::vector<std::string> paths;
  paths.reserve(found.size());
  for (const auto& [number, path] : found) paths.push_back(path);
  return paths;
}

Result<int> OpenJoystick(const std::string& path) {
  for (;;) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) return fd;
    if (errno != EINTR) return StatusFromErrno(errno, "open the joystick");
  }
}

Result<JoystickCounts> AskJoystickCounts(int fd) {
  std::uint8_t buttons = 0;
  std::uint8_t axes = 0;
  if (::ioctl(fd, JSIOCGBUTTONS, &buttons) < 0 || ::ioctl(fd, JSIOCGAXES, &axes) < 0) {
    return StatusFromErrno(errno, "ask what the joystick has");
  }
  return JoystickCounts{buttons, axes};
}

JoystickIdentity AskJoystickIdentity(int fd) {
  struct stat device {};
  if (::fstat(fd, &device) != 0 || !S_ISCHR(device.st_mode)) return {AskName(fd)};
  return {AskName(fd), AskBusNumber(device, "vendor"), AskBusNumber(device, "product")};
}

}  // namespace kinetrel

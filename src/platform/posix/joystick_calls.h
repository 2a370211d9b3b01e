// Where the joysticks are, and the system calls of one.
#pragma once

#include <string>
#include <vector>

#include "platform/status.h"

namespace kinetrel {

// The js<n> of /dev/input, or of the directory that the environment variable KINETREL_JOYSTICKS
// names; n ascending. A pipe there is a joystick too: it carries the records that a device would.
std::vector<std::string> JoystickPaths();

// Reads of it return at once. To open a USB stick that nobody has open takes 50 ms and more.
Result<int> OpenJoystick(const std::string& path);

struct JoystickCounts {
  unsigned buttons = 0;
  unsigned axes = 0;
};

// Unsupported: a pipe. NotFound: unplugged.
Result<JoystickCounts> AskJoystickCounts(int fd);

// What a stick is; empty and 0 where the system does not know.
struct JoystickIdentity {
  std::string product;
  unsigned manufacturerId = 0;
  unsigned productId = 0;

  bool operator==(const JoystickIdentity&) const = default;
};
JoystickIdentity AskJoystickIdentity(int fd);

}  // namespace kinetrel

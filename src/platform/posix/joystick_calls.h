// Finds the joysticks and makes the system calls for one of them.
#pragma once

#include <string>
#include <vector>

#include "platform/status.h"

namespace kinetrel {

// The js<n> of /dev/input, or of the directory that the environment variable KINETREL_JOYSTICKS
// names; n ascending. A pipe there is a joystick too: it carries the records that a device would.
std::vector<std::string> JoystickPaths();

// Opened so that reads return at once. Opening a USB stick takes 50 ms and more when no other
// program has it open.
Result<int> OpenJoystick(const std::string& path);

struct JoystickCounts {
  unsigned buttons = 0;
  unsigned axes = 0;
};

// Unsupported: a pipe. NotFound: unplugged.
Result<JoystickCounts> AskJoystickCounts(int fd);

// What a stick is. Empty and 0: the system does not know.
struct JoystickIdentity {
  std::string product;
  unsigned manufacturerId = 0;
  unsigned productId = 0;

  bool operator==(const JoystickIdentity&) const = default;
};
JoystickIdentity AskJoystickIdentity(int fd);

}  // namespace kinetrel

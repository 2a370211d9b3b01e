// Joysticks and gamepads of the machine: how many there are, what they have, where they stand.
//
// They are numbered from 0 in the system's order; a number may mean another stick once one of them
// is unplugged or plugged in, an open JoystickInput never does.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/status.h"

namespace kinetrel {

struct JoystickCapabilities {
  std::string product;
  std::string driver;
  unsigned manufacturerId = 0;  // the bus's own; 0 where unknown, as the next
  unsigned productId = 0;
  unsigned buttons = 0;     // that the stick has
  unsigned maxButtons = 0;  // that its driver knows of
  unsigned axes = 0;
  std::array<std::uint32_t, 6> axisMax{};  // of x, y, z, r, u, v
};

struct JoystickState {
  std::uint32_t buttons = 0;            // bit i: button i is down; the first 32 buttons
  std::array<std::uint32_t, 3> axes{};  // x, y, z: 0 to 65535; 0 for an axis that is not there
};

int CountJoysticks();  // plugged in; 0 also where the system has none

// Threads  one at a time.
// Memory   Read allocates nothing.
class JoystickInput {
 public:
  // NotFound: fewer sticks than that. Denied: this account may not. Closed: unplugged meanwhile.
  static Result<JoystickInput> Open(int number);

  JoystickInput(JoystickInput&&) noexcept;
  JoystickInput& operator=(JoystickInput&&) noexcept;
  ~JoystickInput();

  // Closed: unplugged.
  Result<JoystickCapabilities> Capabilities() const;

  // How the stick stands now. Never waits.
  // Closed: unplugged. It is looked for on the side and, once the same stick is back in its place,
  // reading goes on.
  Result<JoystickState> Read();

 private:
  struct Os;  // posix/joystick.cpp, win32/joystick.cpp
  explicit JoystickInput(std::unique_ptr<Os> os);
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

// Joysticks and gamepads of the machine: their number, their buttons and axes, and their state.
//
// They are numbered from 0 in the system's order. A number may mean another stick after one is
// plugged in or unplugged. An open JoystickInput always means the same stick.
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
  unsigned manufacturerId = 0;  // the number on the bus, like the next one; 0: unknown
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

int CountJoysticks();  // plugged in now

// Threads  one at a time.
// Memory   Read allocates nothing.
class JoystickInput {
 public:
  // NotFound: the machine has fewer sticks. Denied: this account may not. Closed: just unplugged.
  static Result<JoystickInput> Open(int number);

  JoystickInput(JoystickInput&&) noexcept;
  JoystickInput& operator=(JoystickInput&&) noexcept;
  ~JoystickInput();

  // Closed: unplugged.
  Result<JoystickCapabilities> Capabilities() const;

  // The state of the stick now. Never waits.
  // Closed: unplugged. Another thread looks for it; when the same stick is back in its place,
  // reading goes on.
  Result<JoystickState> Read();

 private:
  struct Os;  // posix/joystick.cpp, win32/joystick.cpp
  explicit JoystickInput(std::unique_ptr<Os> os);
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel

// Reopens a stick that was unplugged, on a thread of its own.
#pragma once

#include <memory>
#include <string>

#include "platform/posix/joystick_calls.h"
#include "platform/status.h"

namespace kinetrel {

// Threads  Lost and TakeFound: one at a time. They never wait and allocate nothing.
class JoystickSearch {
 public:
  // Takes over stick `identity` that was found at `path`. NoSpace: the system
  // refuses another thread.
  static Result<JoystickSearch> Start(std::string path, JoystickIdentity identity);

  JoystickSearch(JoystickSearch&&) noexcept;
  JoystickSearch& operator=(JoystickSearch&&) noexcept;
  ~JoystickSearch();  // does not wait for an open call in progress

  // Closes `fd`, whose device is gone, and tries twice a second to open the same stick at the same
  // place.
  void Lost(int fd);

  int TakeFound();  // the stick's descriptor, which the caller now owns; -1 until it is back

 private:
  struct State;
  explicit JoystickSearch(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

}  // namespace kinetrel

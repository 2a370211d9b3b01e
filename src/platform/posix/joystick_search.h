// Opens a stick that was unplugged again, away from the thread that reads it.
#pragma once

#include <memory>
#include <string>

#include "platform/posix/joystick_calls.h"
#include "platform/status.h"

namespace kinetrel {

// Threads  Lost and TakeFound: one at a time. They never wait and allocate nothing.
class JoystickSearch {
 public:
  // Takes over stick `identity` that was found at `path`. NoSpace: no thread is to be had.
  static Result<JoystickSearch> Start(std::string path, JoystickIdentity identity);

  JoystickSearch(JoystickSearch&&) noexcept;
  JoystickSearch& operator=(JoystickSearch&&) noexcept;
  ~JoystickSearch();  // does not wait for an opening that is going on

  // Closes `fd`, whose device is gone, and tries twice a second to open the same stick at the same
  // place.
  void Lost(int fd);

  int TakeFound();  // the stick's descriptor, now the caller's; -1 as long as it is not back

 private:
  struct State;
  explicit JoystickSearch(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

}  // namespace kinetrel

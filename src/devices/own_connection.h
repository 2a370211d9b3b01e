// What a tracker implements beside TrackerDevice that is not reached over its base's serial port,
// and can be lost all the same: the engine asks it, and then opens and boots the device again.
#pragma once

namespace kinetrel {

class OwnConnection {
 public:
  // Threads  the sampling thread, after a failed ReadFrame. Allocates nothing.
  virtual bool ConnectionLost() = 0;

 protected:
  ~OwnConnection() = default;  // owned as a device, never as this
};

}  // namespace kinetrel

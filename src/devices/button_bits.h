// What a tracker with buttons of its own implements beside TrackerDevice: the engine publishes
// them with every frame and needs to know nothing else of the device.
#pragma once

#include <cstdint>

namespace kinetrel {

class ButtonBits {
 public:
  struct Buttons {
    std::uint32_t known;  // the bits that are this device's; the others are somebody else's
    std::uint32_t bits;
  };

  // As the last record had them.
  //
  // Threads  the sampling thread, after ReadFrame. Allocates nothing.
  virtual Buttons OwnButtons() const = 0;

 protected:
  ~ButtonBits() = default;  // owned as a device, never as this
};

}  // namespace kinetrel

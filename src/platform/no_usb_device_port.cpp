// For a build without umockdev, in which this program cannot play a USB device.
#include "platform/usb_device_port.h"

namespace kinetrel {

Result<std::shared_ptr<UsbBus>> UsbBus::Make() {
  return Status{Error::Unsupported, 0, "play a USB device: this build is without umockdev"};
}

}  // namespace kinetrel

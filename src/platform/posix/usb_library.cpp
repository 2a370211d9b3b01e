#include "platform/posix/usb_library.h"

#include <dlfcn.h>

#include <cerrno>
#include <optional>

namespace kinetrel::usb {
namespace {

constexpr char kFile[] = "libusb-1.0.so.0";

template <typename Function>
bool Find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
  return function != nullptr;
}

bool FindAll(void* from, Library& into) {
  return Find(from, "libusb_init", into.init) && Find(from, "libusb_exit", into.exit) &&
         Find(from, "libusb_get_device_list", into.getDeviceList) &&
         Find(from, "libusb_free_device_list", into.freeDeviceList) &&
         Find(from, "libusb_get_device_descriptor", into.getDeviceDescriptor) &&
         Find(from, "libusb_get_bus_number", into.getBusNumber) &&
         Find(from, "libusb_get_port_numbers", into.getPortNumbers) &&
         Find(from, "libusb_get_max_packet_size", into.getMaxPacketSize) &&
         Find(from, "libusb_open", into.open) && Find(from, "libusb_close", into.close) &&
         Find(from, "libusb_get_configuration", into.getConfiguration) &&
         Find(from, "libusb_set_configuration", into.setConfiguration) &&
         Find(from, "libusb_set_auto_detach_kernel_driver", into.setAutoDetachKernelDriver) &&
         Find(from, "libusb_claim_interface", into.claimInterface) &&
         Find(from, "libusb_release_interface", into.releaseInterface) &&
         Find(from, "libusb_clear_halt", into.clearHalt) &&
         Find(from, "libusb_alloc_transfer", into.allocTransfer) &&
         Find(from, "libusb_free_transfer", into.freeTransfer) &&
         Find(from, "libusb_submit_transfer", into.submitTransfer) &&
         Find(from, "libusb_cancel_transfer", into.cancelTransfer) &&
         Find(from, "libusb_handle_events_timeout_completed", into.handleEventsTimeoutCompleted);
}

// Unlike a vendor's library it is one of the system, so it finds functions in the usual order: a
// program that puts itself between it and the kernel, as test tools do, is found.
std::optional<Library> Load() {
  void* const handle = ::dlopen(kFile, RTLD_NOW | RTLD_LOCAL);
  Library library{};
  if (handle == nullptr || !FindAll(handle, library)) return std::nullopt;
  return library;
}

struct CodeRow {
  int result;
  Error error;
  int code;
};
constexpr CodeRow kCodes[] = {
    {kIo, Error::Failed, EIO},
    {kAccess, Error::Denied, EACCES},
    {kNoDevice, Error::Closed, ENODEV},
    {kNotFound, Error::NotFound, ENOENT},
    {kBusy, Error::Busy, EBUSY},
    {kNoMemory, Error::NoSpace, ENOMEM},
    {kNotSupported, Error::Unsupported, ENOSYS},
};

}  // namespace

const Library* LoadLibrary() {
  static const std::optional<Library> library = Load();
  return library ? &*library : nullptr;
}

Status StatusOf(int result, const char* what) {
  if (result >= 0) return {};
  for (const CodeRow& row : kCodes) {
    if (row.result == result) return {row.error, row.code, what};
  }
  return {Error::Failed, 0, what};
}

}  // namespace kinetrel::usb

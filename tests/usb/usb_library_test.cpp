// Our declarations of libusb against its own header.
#include <libusb-1.0/libusb.h>

#include <gtest/gtest.h>

#include <cstddef>

#include "platform/posix/usb_library.h"

namespace kinetrel::usb {
namespace {

#define KINETREL_SAME(ours, theirs) \
  static_assert(static_cast<int>(ours) == static_cast<int>(theirs))
#define KINETREL_SAME_PLACE(ours, theirs)                                        \
  static_assert(offsetof(Transfer, ours) == offsetof(libusb_transfer, theirs) && \
                sizeof(Transfer::ours) == sizeof(libusb_transfer::theirs))

KINETREL_SAME_PLACE(handle, dev_handle);
KINETREL_SAME_PLACE(flags, flags);
KINETREL_SAME_PLACE(endpoint, endpoint);
KINETREL_SAME_PLACE(type, type);
KINETREL_SAME_PLACE(timeout, timeout);
KINETREL_SAME_PLACE(status, status);
KINETREL_SAME_PLACE(length, length);
KINETREL_SAME_PLACE(actualLength, actual_length);
KINETREL_SAME_PLACE(callback, callback);
KINETREL_SAME_PLACE(userData, user_data);
KINETREL_SAME_PLACE(buffer, buffer);
KINETREL_SAME_PLACE(isoPackets, num_iso_packets);
static_assert(sizeof(DeviceDescriptor) == sizeof(libusb_device_descriptor));
static_assert(offsetof(DeviceDescriptor, deviceClass) ==
              offsetof(libusb_device_descriptor, bDeviceClass));
static_assert(offsetof(DeviceDescriptor, vendor) == offsetof(libusb_device_descriptor, idVendor));
static_assert(offsetof(DeviceDescriptor, product) == offsetof(libusb_device_descriptor, idProduct));
KINETREL_SAME(kHubClass, LIBUSB_CLASS_HUB);
KINETREL_SAME(TransferType::Bulk, LIBUSB_TRANSFER_TYPE_BULK);
KINETREL_SAME(TransferType::Interrupt, LIBUSB_TRANSFER_TYPE_INTERRUPT);
KINETREL_SAME(TransferStatus::Completed, LIBUSB_TRANSFER_COMPLETED);
KINETREL_SAME(TransferStatus::Error, LIBUSB_TRANSFER_ERROR);
KINETREL_SAME(TransferStatus::TimedOut, LIBUSB_TRANSFER_TIMED_OUT);
KINETREL_SAME(TransferStatus::Cancelled, LIBUSB_TRANSFER_CANCELLED);
KINETREL_SAME(TransferStatus::Stall, LIBUSB_TRANSFER_STALL);
KINETREL_SAME(TransferStatus::NoDevice, LIBUSB_TRANSFER_NO_DEVICE);
KINETREL_SAME(TransferStatus::Overflow, LIBUSB_TRANSFER_OVERFLOW);
KINETREL_SAME(kAddZeroPacket, LIBUSB_TRANSFER_ADD_ZERO_PACKET);
KINETREL_SAME(kIo, LIBUSB_ERROR_IO);
KINETREL_SAME(kAccess, LIBUSB_ERROR_ACCESS);
KINETREL_SAME(kNoDevice, LIBUSB_ERROR_NO_DEVICE);
KINETREL_SAME(kNotFound, LIBUSB_ERROR_NOT_FOUND);
KINETREL_SAME(kBusy, LIBUSB_ERROR_BUSY);
KINETREL_SAME(kInterrupted, LIBUSB_ERROR_INTERRUPTED);
KINETREL_SAME(kNoMemory, LIBUSB_ERROR_NO_MEM);
KINETREL_SAME(kNotSupported, LIBUSB_ERROR_NOT_SUPPORTED);

// The functions, with pointers to incomplete types and enumerations taken for each other.
template <typename Result, typename... Parameters>
constexpr std::size_t CountOf(Result (*)(Parameters...)) {
  return sizeof...(Parameters);
}
#define KINETREL_SAME_CALL(ours, theirs) \
  static_assert(CountOf(decltype(Library::ours){}) == CountOf(&theirs))
KINETREL_SAME_CALL(init, libusb_init);
KINETREL_SAME_CALL(exit, libusb_exit);
KINETREL_SAME_CALL(getDeviceList, libusb_get_device_list);
KINETREL_SAME_CALL(freeDeviceList, libusb_free_device_list);
KINETREL_SAME_CALL(getDeviceDescriptor, libusb_get_device_descriptor);
KINETREL_SAME_CALL(getBusNumber, libusb_get_bus_number);
KINETREL_SAME_CALL(getPortNumbers, libusb_get_port_numbers);
KINETREL_SAME_CALL(getMaxPacketSize, libusb_get_max_packet_size);
KINETREL_SAME_CALL(open, libusb_open);
KINETREL_SAME_CALL(close, libusb_close);
KINETREL_SAME_CALL(getConfiguration, libusb_get_configuration);
KINETREL_SAME_CALL(setConfiguration, libusb_set_configuration);
KINETREL_SAME_CALL(setAutoDetachKernelDriver, libusb_set_auto_detach_kernel_driver);
KINETREL_SAME_CALL(claimInterface, libusb_claim_interface);
KINETREL_SAME_CALL(releaseInterface, libusb_release_interface);
KINETREL_SAME_CALL(clearHalt, libusb_clear_halt);
KINETREL_SAME_CALL(allocTransfer, libusb_alloc_transfer);
KINETREL_SAME_CALL(freeTransfer, libusb_free_transfer);
KINETREL_SAME_CALL(submitTransfer, libusb_submit_transfer);
KINETREL_SAME_CALL(cancelTransfer, libusb_cancel_transfer);
KINETREL_SAME_CALL(handleEventsTimeoutCompleted, libusb_handle_events_timeout_completed);

TEST(UsbLibrary, HasAllFunctions) { EXPECT_NE(LoadLibrary(), nullptr); }

}  // namespace
}  // namespace kinetrel::usb

// The functions of libusb-1.0 that Kinetrel calls, and the structures that they share with us.
//
// The library is loaded when it is first needed. The declarations are ours, so that neither a build
// nor a program without USB devices needs libusb; a test compares them with libusb's own header.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <cstdint>

#include "platform/status.h"

namespace kinetrel::usb {

struct Context;
struct Device;
struct Handle;

struct DeviceDescriptor {
  std::uint8_t length, descriptorType;
  std::uint16_t usbVersion;
  std::uint8_t deviceClass, subClass, protocol, packetSize0;
  std::uint16_t vendor, product, release;
  std::uint8_t manufacturerText, productText, serialText, configurations;
};

inline constexpr std::uint8_t kHubClass = 9;

enum class TransferType : std::uint8_t { Bulk = 2, Interrupt = 3 };

enum class TransferStatus : int {
  Completed = 0,
  Error = 1,
  TimedOut = 2,
  Cancelled = 3,
  Stall = 4,
  NoDevice = 5,
  Overflow = 6
};

inline constexpr std::uint8_t kAddZeroPacket = 1U << 3;  // a flag of a transfer

struct Transfer {
  Handle* handle;
  std::uint8_t flags;
  unsigned char endpoint;
  TransferType type;
  unsigned timeout;  // ms; 0: none
  TransferStatus status;
  int length;
  int actualLength;
  void (*callback)(Transfer*);
  void* userData;
  unsigned char* buffer;
  int isoPackets;
};

// What the functions return when they fail.
inline constexpr int kIo = -1, kAccess = -3, kNoDevice = -4, kNotFound = -5, kBusy = -6,
                     kInterrupted = -10, kNoMemory = -11, kNotSupported = -12;

struct Library {
  int (*init)(Context**);
  void (*exit)(Context*);
  ssize_t (*getDeviceList)(Context*, Device***);
  void (*freeDeviceList)(Device**, int unref);
  int (*getDeviceDescriptor)(Device*, DeviceDescriptor*);
  std::uint8_t (*getBusNumber)(Device*);
  int (*getPortNumbers)(Device*, std::uint8_t* numbers, int room);
  int (*getMaxPacketSize)(Device*, unsigned char endpoint);
  int (*open)(Device*, Handle**);
  void (*close)(Handle*);
  int (*getConfiguration)(Handle*, int*);
  int (*setConfiguration)(Handle*, int);
  int (*setAutoDetachKernelDriver)(Handle*, int);
  int (*claimInterface)(Handle*, int);
  int (*releaseInterface)(Handle*, int);
  int (*clearHalt)(Handle*, unsigned char endpoint);
  Transfer* (*allocTransfer)(int isoPackets);
  void (*freeTransfer)(Transfer*);
  int (*submitTransfer)(Transfer*);
  int (*cancelTransfer)(Transfer*);
  int (*handleEventsTimeoutCompleted)(Context*, timeval*, int* completed);
};

// The library, loaded once for the process; null when it is not installed.
const Library* LoadLibrary();

// A result of the library as a Status.
Status StatusOf(int result, const char* what);

}  // namespace kinetrel::usb

#include "bench/usb_stand_in.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <linux/usbdevice_fs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "bench/machine.h"

namespace kinetrel::bench {
namespace {

constexpr std::size_t kPage = 4096;  // the pipe's room

std::atomic<StandInUsbPort*> present{nullptr};

}  // namespace

struct StandInUsbPort::Transfer {
  usbdevfs_urb* urb = nullptr;
  std::vector<std::byte> bytes = {};  // on their way to the host
};

StandInUsbPort::StandInUsbPort(const UsbBus& bus, std::unique_ptr<UsbDevicePort> shown,
                               std::uint8_t answers)
    : shown_(std::move(shown)), answers_(answers) {
  const std::filesystem::path nodes = bus.Environment()[1].second + "/dev/bus/usb/001";
  for (const auto& node : std::filesystem::directory_iterator(nodes)) {
    pipe_ = ::open(node.path().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  }
  if (pipe_ < 0) throw std::runtime_error("no device file");
  present = this;
}

StandInUsbPort::~StandInUsbPort() {
  present = nullptr;
  ::close(pipe_);
}

// ---- The device's side -------------------------------------------------------------------------

std::size_t StandInUsbPort::Read(std::span<std::byte> into) {
  const std::lock_guard lock(mutex_);
  const std::size_t count = std::min(into.size(), fromHost_.size());
  std::copy_n(fromHost_.begin(), count, into.begin());
  fromHost_.erase(fromHost_.begin(), fromHost_.begin() + static_cast<std::ptrdiff_t>(count));
  return count;
}

std::size_t StandInUsbPort::Write(std::span<const std::byte> from) {
  const std::lock_guard lock(mutex_);
  if (!from.empty() && claimed_) toHost_.emplace_back(from.begin(), from.end());
  ServeReads();
  return from.size();
}

void StandInUsbPort::Wait(std::chrono::nanoseconds atMost) {
  deviceCpu_ = OwnThreadCpuSeconds();
  std::unique_lock lock(mutex_);
  const auto most = std::min<std::chrono::nanoseconds>(atMost, std::chrono::hours(1));
  changed_.wait_for(lock, most, [this] { return interrupted_ || !fromHost_.empty(); });
  interrupted_ = false;
}

void StandInUsbPort::Interrupt() {
  const std::lock_guard lock(mutex_);
  interrupted_ = true;
  changed_.notify_all();
}

// ---- The host's calls --------------------------------------------------------------------------

int StandInUsbPort::Answer(unsigned long request, void* argument) {
  const std::lock_guard lock(mutex_);
  ++calls_;
  switch (request) {
    case USBDEVFS_GET_CAPABILITIES:
      *static_cast<std::uint32_t*>(argument) = USBDEVFS_CAP_ZERO_PACKET |
                                               USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                               USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
      return 0;
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_DISCONNECT_CLAIM:
      claimed_ = true;
      return 0;
    case USBDEVFS_RELEASEINTERFACE:
      claimed_ = false;
      return 0;
    case USBDEVFS_IOCTL:
    case USBDEVFS_SETCONFIGURATION:
      return 0;
    case USBDEVFS_SUBMITURB:
      return Submit(argument);
    case USBDEVFS_REAPURBNDELAY:
      return Reap(argument);
    case USBDEVFS_DISCARDURB:
      return Discard(argument);
    default:
      return -ENOTTY;
  }
}

int StandInUsbPort::Submit(void* argument) {
  auto* const urb = static_cast<usbdevfs_urb*>(argument);
  if (urb->endpoint == answers_) {
    asked_.push_back({urb});
    ServeReads();
    return 0;
  }
  if ((urb->endpoint & 0x80) != 0) return -EINVAL;
  const auto* const bytes = static_cast<const std::byte*>(urb->buffer);
  fromHost_.insert(fromHost_.end(), bytes, bytes + urb->buffer_length);
  urb->actual_length = urb->buffer_length;
  urb->status = 0;
  done_.push_back({urb});
  SignalHost(true);
  changed_.notify_all();
  return 0;
}

// What the device wrote at once is one transfer, unless that has less room.
void StandInUsbPort::ServeReads() {
  while (!asked_.empty() && !toHost_.empty()) {
    Transfer transfer = std::move(asked_.front());
    asked_.pop_front();
    std::vector<std::byte>& bytes = toHost_.front();
    const auto count = std::min<std::ptrdiff_t>(std::ssize(bytes), transfer.urb->buffer_length);
    transfer.bytes.assign(bytes.begin(), bytes.begin() + count);
    bytes.erase(bytes.begin(), bytes.begin() + count);
    if (bytes.empty()) toHost_.pop_front();
    done_.push_back(std::move(transfer));
    SignalHost(true);
  }
}

int StandInUsbPort::Reap(void* argument) {
  if (done_.empty()) return -EAGAIN;
  const Transfer& transfer = done_.front();
  usbdevfs_urb& urb = *transfer.urb;
  if (urb.endpoint == answers_ && urb.status == 0) {
    std::memcpy(urb.buffer, transfer.bytes.data(), transfer.bytes.size());
    urb.actual_length = static_cast<int>(transfer.bytes.size());
  }
  *static_cast<usbdevfs_urb**>(argument) = &urb;
  done_.pop_front();
  SignalHost(!done_.empty());
  return 0;
}

int StandInUsbPort::Discard(void* urb) {
  const auto found = std::find_if(asked_.begin(), asked_.end(),
                                  [urb](const Transfer& each) { return each.urb == urb; });
  if (found == asked_.end()) return -EINVAL;
  found->urb->status = -ENOENT;
  found->urb->actual_length = 0;
  done_.push_back(std::move(*found));
  asked_.erase(found);
  SignalHost(true);
  return 0;
}

// The host waits until its device file can be written to.
void StandInUsbPort::SignalHost(bool ready) {
  if (ready == ready_) return;
  std::array<char, kPage> page{};
  const ssize_t moved =
      ready ? ::read(pipe_, page.data(), page.size()) : ::write(pipe_, page.data(), page.size());
  if (moved == kPage) ready_ = ready;
}

}  // namespace kinetrel::bench

// In the place of the C library's. Calls that concern no USB go on to the next library.
extern "C" __attribute__((visibility("default"))) int ioctl(int file, unsigned long request,
                                                            ...) noexcept {
  va_list rest;
  va_start(rest, request);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  using Next = int (*)(int, unsigned long, void*);
  static const auto next = reinterpret_cast<Next>(::dlsym(RTLD_NEXT, "ioctl"));
  auto* const device = kinetrel::bench::present.load();
  if (device == nullptr || _IOC_TYPE(request) != 'U') return next(file, request, argument);
  const int result = device->Answer(request, argument);
  if (result < 0) errno = -result;
  return result < 0 ? -1 : 0;
}

// A USB device in the place of the kernel: libusb's calls are answered by this process itself.
//
// umockdev shows libusb the device, but passes each call on to another thread through a socket,
// which costs more than the driver that is measured. Here a call costs about what the kernel's
// answer costs: the bytes are copied, and the device file is a pipe, which the kernel keeps.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/device_port.h"
#include "platform/usb_device_port.h"

namespace kinetrel::bench {

// Threads  as DevicePort; one object at a time. The thread that waits is the device's.
class StandInUsbPort final : public DevicePort {
 public:
  // shown    the device as libusb finds it: the only one on the bus.
  // answers  the endpoint in which its bytes go.
  StandInUsbPort(const UsbBus& bus, std::unique_ptr<UsbDevicePort> shown, std::uint8_t answers);
  ~StandInUsbPort() override;

  const std::string& path() const override { return shown_->path(); }
  void Unplug() override {}
  Status Plug(unsigned) override { return {}; }
  bool IsPlugged() const override { return true; }
  bool HasHost() const override { return claimed_; }
  unsigned HostBaud() const override { return 0; }
  std::size_t Read(std::span<std::byte> into) override;
  std::size_t Write(std::span<const std::byte> from) override;
  void Wait(std::chrono::nanoseconds atMost) override;
  void Interrupt() override;

  double DeviceCpuSeconds() const { return deviceCpu_; }  // of the thread that waits
  std::uint64_t Calls() const { return calls_; }          // of libusb to its kernel

  // A call of libusb. Returns 0, or minus the error.
  int Answer(unsigned long request, void* argument);

 private:
  struct Transfer;  // of a host
  void ServeReads();
  void SignalHost(bool ready);
  int Submit(void* urb);
  int Reap(void* argument);
  int Discard(void* urb);

  const std::unique_ptr<UsbDevicePort> shown_;
  const std::uint8_t answers_;
  int pipe_ = -1;
  std::atomic<bool> claimed_{false};
  std::atomic<double> deviceCpu_{0};
  std::atomic<std::uint64_t> calls_{0};

  std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  bool interrupted_ = false;
  bool ready_ = false;  // the pipe has room, so the host's wait ends
  std::deque<Transfer> asked_;
  std::deque<Transfer> done_;
  std::vector<std::byte> fromHost_;
  std::deque<std::vector<std::byte>> toHost_;  // as they were written
};

}  // namespace kinetrel::bench

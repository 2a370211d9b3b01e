// A device on a real port: a pseudo-terminal that another program opens as its serial line, or a
// USB device.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "emulate/stepped_device.h"
#include "platform/device_port.h"
#include "platform/status.h"
#include "platform/thread.h"

namespace kinetrel::emulate {

// A fixed name for a port whose own name changes: a symbolic link.
class PortLink {
 public:
  PortLink() = default;  // without a name: does nothing
  explicit PortLink(std::string path) : path_(std::move(path)) {}
  PortLink(PortLink&& other) noexcept;
  PortLink& operator=(PortLink&&) = delete;
  ~PortLink() { Remove(); }

  // Replaces the link in one step: a program that opens it finds the old port or the new one. An
  // empty target removes the link. Invalid: the name belongs to a file that is not a symbolic link.
  Status Point(const std::string& target);

  const std::string& path() const { return path_; }

 private:
  void Remove();  // unless another program has replaced it

  std::string path_;
  std::string target_;
};

struct EmulatorOptions {
  LineOptions line = {};
  std::string link = {};  // a name for the port that stays the same; empty: none
};

// One loop serves the device and the port.
//
// Threads  one thread calls Run; any thread may call the others, also before and after Run.
class Emulator {
 public:
  // Invalid, Denied, NotFound: the link cannot be made. NoSpace: the system has no free
  // pseudo-terminal.
  //
  // port  null: a new pseudo-terminal.
  static Result<std::shared_ptr<Emulator>> Open(std::unique_ptr<EmulatedDevice> device,
                                                const EmulatorOptions& options,
                                                std::unique_ptr<DevicePort> port = nullptr);

  void Run();   // until Stop
  void Stop();  // for good

  // The name that a host opens: the link, or the port's own name. Empty while the port is
  // unplugged.
  std::string Port() const;

  void NewPoses(std::uint32_t stations);  // of the live source of the device's motion; bits
  void Strike(const Fault& fault);
  void StrikeAll(FaultTrigger asked);  // the rules that wait for this
  void Unplug();                       // until Plug
  void Plug();

  std::uint64_t RecordsSent() const { return records_; }
  std::uint64_t BytesLost() const { return lost_; }  // sent while a host was there and did not read

 private:
  using Request = std::function<void(Moment)>;

  Emulator(std::unique_ptr<EmulatedDevice> device, const EmulatorOptions& options,
           std::unique_ptr<DevicePort> port);

  Moment Now();
  void Post(Request request);
  void ServeRequests(Moment now);
  void ServePlug(Moment now);
  void PullPlug(Moment replugAt);
  void ReadHost(Moment now);
  void NoticeHost(Moment now);
  void Deliver();
  void PublishPort(Moment now);
  Status Link();

  // Used only by the thread in Run.
  SteppedDevice device_;
  const std::unique_ptr<DevicePort> port_;
  PortLink link_;
  std::string linked_;  // the port's name that the link points at
  const unsigned firstBaud_;
  const bool wired_;  // a real line, which may vanish by itself
  EmulatorClock clock_;
  Moment replugAt_ = kNever;
  bool pulled_ = false;  // by Unplug or a fault; otherwise a missing port was lost
  bool hostPresent_ = false;
  std::vector<std::byte> out_;

  std::atomic<bool> stop_{false};
  std::atomic<std::uint64_t> records_{0};
  std::atomic<std::uint64_t> lost_{0};

  mutable std::mutex mutex_;  // a leaf, held for a moment; guards the two below
  std::vector<Request> requests_;
  std::string published_;
};

// Runs an emulator in the background until it is destroyed.
class EmulatorThread {
 public:
  static Result<EmulatorThread> Start(std::unique_ptr<EmulatedDevice> device,
                                      const EmulatorOptions& options,
                                      std::unique_ptr<DevicePort> port = nullptr);
  EmulatorThread(EmulatorThread&&) noexcept = default;
  EmulatorThread& operator=(EmulatorThread&&) = delete;
  ~EmulatorThread();

  Emulator& operator*() const { return *emulator_; }
  Emulator* operator->() const { return emulator_.get(); }

 private:
  EmulatorThread(std::shared_ptr<Emulator> emulator, Thread thread)
      : emulator_(std::move(emulator)), thread_(std::move(thread)) {}

  std::shared_ptr<Emulator> emulator_;
  Thread thread_;
};

}  // namespace kinetrel::emulate

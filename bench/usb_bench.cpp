// A tracker on USB: from the packet to a client over a bare libusb transfer, and what 16 stations
// at 240 Hz cost. The bus is played by this process: through umockdev for both sides of the ratio
// alike, and for the cost in the place of the kernel, without umockdev's way of passing calls on.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "bench/harness.h"
#include "bench/machine.h"
#include "bench/publication.h"
#include "bench/usb_stand_in.h"
#include "drivers/driver_table.h"
#include "emulate/emulator.h"
#include "emulate/liberty_emulator.h"
#include "engine/tracker_engine.h"
#include "platform/posix/usb_library.h"
#include "platform/thread.h"
#include "platform/usb_device_port.h"

namespace kinetrel::bench {
namespace {

using namespace emulate;

constexpr int kLiberty = 10;
constexpr int kBlock = 15;
constexpr std::size_t kPacket = 36;  // bytes; position, angles and frame count of one station
constexpr auto kPeriod = std::chrono::nanoseconds(1'000'000'000 / 240);

const UsbIdentity kIdentity = {
    0x0F44, 0xFF20, true, {{0x82, false}, {0x04, false}, {0x06, false}, {0x88, false}}, 0x88};

template <typename T>
T Must(Result<T> result) {
  if (!result.Ok()) throw std::runtime_error(Describe(result.status()));
  return std::move(*result);
}

// Notes when the device gave its last bytes.
class StampedPort final : public DevicePort {
 public:
  StampedPort(std::unique_ptr<DevicePort> port, std::atomic<std::int64_t>& stamp)
      : port_(std::move(port)), stamp_(stamp) {}

  const std::string& path() const override { return port_->path(); }
  void Unplug() override { port_->Unplug(); }
  Status Plug(unsigned baud) override { return port_->Plug(baud); }
  bool IsPlugged() const override { return port_->IsPlugged(); }
  bool HasHost() const override { return port_->HasHost(); }
  unsigned HostBaud() const override { return port_->HostBaud(); }
  std::size_t Read(std::span<std::byte> into) override { return port_->Read(into); }
  std::size_t Write(std::span<const std::byte> from) override {
    if (!from.empty()) stamp_ = ClockTicks();
    return port_->Write(from);
  }
  void Wait(std::chrono::nanoseconds atMost) override { port_->Wait(atMost); }
  void Interrupt() override { port_->Interrupt(); }

 private:
  const std::unique_ptr<DevicePort> port_;
  std::atomic<std::int64_t>& stamp_;
};

EmulatorThread Play(std::unique_ptr<DevicePort> port, std::uint32_t stations) {
  LibertySettings settings;
  settings.plugged = stations;
  EmulatorOptions options;
  options.line.baud = 4'000'000'000;
  return Must(EmulatorThread::Start(std::make_unique<LibertyEmulator>(settings, MakeCircle({})),
                                    options, std::move(port)));
}

// A device on a port, opened without anything of ours.
class BareDevice {
 public:
  explicit BareDevice(std::uint8_t port) : library_(usb::LoadLibrary()) {
    if (library_ == nullptr || library_->init(&context_) < 0) throw std::runtime_error("no libusb");
    usb::Device** list = nullptr;
    const ssize_t count = library_->getDeviceList(context_, &list);
    for (ssize_t i = 0; i < count; ++i) {
      std::uint8_t place = 0;
      if (library_->getPortNumbers(list[i], &place, 1) == 1 && place == port) {
        (void)library_->open(list[i], &handle_);
      }
    }
    library_->freeDeviceList(list, 1);
    if (handle_ == nullptr || library_->claimInterface(handle_, 0) < 0) {
      throw std::runtime_error("the bare device does not open");
    }
    transfer_ = library_->allocTransfer(0);
    transfer_->handle = handle_;
    transfer_->type = usb::TransferType::Bulk;
    transfer_->buffer = buffer_.data();
    transfer_->callback = [](usb::Transfer* done) { *static_cast<int*>(done->userData) = 1; };
    transfer_->userData = &done_;
  }
  ~BareDevice() {
    library_->freeTransfer(transfer_);
    library_->close(handle_);
    library_->exit(context_);
  }
  BareDevice(const BareDevice&) = delete;
  BareDevice& operator=(const BareDevice&) = delete;

  bool Begin(std::uint8_t endpoint, std::size_t count) {
    done_ = 0;
    transfer_->endpoint = endpoint;
    transfer_->length = static_cast<int>(count);
    return library_->submitTransfer(transfer_) == 0;
  }
  void Await() {
    timeval time{1, 0};
    while (done_ == 0) (void)library_->handleEventsTimeoutCompleted(context_, &time, &done_);
  }
  std::span<unsigned char> buffer() { return buffer_; }

 private:
  const usb::Library* const library_;
  usb::Context* context_ = nullptr;
  usb::Handle* handle_ = nullptr;
  usb::Transfer* transfer_ = nullptr;
  std::array<unsigned char, 1024> buffer_{};
  int done_ = 0;
};

// The floor: one transfer that waits with the system, and a thread that waits for it.
class BareTransfer {
 public:
  explicit BareTransfer(UsbBus& bus) : port_(Must(bus.Attach(2, kIdentity))), device_(2) {
    thread_ = std::thread([this] { Serve(); });
  }
  ~BareTransfer() {
    stop_ = true;
    Give();
    thread_.join();
  }

  // ns from the packet to the thread that waits for it.
  double Handover() {
    while (!waiting_) std::this_thread::yield();
    std::this_thread::sleep_for(kPeriod);  // as long as a tracker's pause
    const std::int64_t start = ClockTicks();
    waiting_ = false;
    Give();
    while (!waiting_) std::this_thread::sleep_for(std::chrono::microseconds(50));
    return static_cast<double>(arrived_ - start) * kNanosecondsPerTick;
  }

 private:
  void Give() { (void)port_->Write(std::array<std::byte, kPacket>{}); }

  void Serve() {
    while (!stop_ && device_.Begin(kIdentity.answers, device_.buffer().size())) {
      waiting_ = true;
      device_.Await();
      arrived_ = ClockTicks();
    }
  }

  const std::unique_ptr<UsbDevicePort> port_;
  BareDevice device_;
  std::atomic<bool> waiting_{false};
  std::atomic<bool> stop_{false};
  std::atomic<std::int64_t> arrived_{0};
  std::thread thread_;
};

void OpenLiberty(TrackerEngine& engine, unsigned stations) {
  StartConfig config;
  config.shmDevice = kBenchDevice;
  config.portName = "usb:1-1";
  config.sensorMask = stations;
  engine.Configure(config);
  if (engine.Open(kLiberty, StartConfig::kUsbPort, false) != OpenResult::Opened) {
    throw std::runtime_error("the Liberty does not open");
  }
}

void PacketToClient(Report& report, UsbBus& bus) {
  std::atomic<std::int64_t> stamp{0};
  const EmulatorThread played =
      Play(std::make_unique<StampedPort>(Must(bus.Attach(1, kIdentity)), stamp), 1);
  TrackerEngine engine(AllDrivers());
  OpenLiberty(engine, 1);
  const auto reader = OpenReader();
  engine.StartSampling();
  AwaitFrames(*reader, 10);
  BareTransfer bare(bus);
  SharedTrackBlock block{};
  const Block floor = [&] {
    std::vector<double> each;
    for (int i = 0; i < kBlock; ++i) each.push_back(bare.Handover());
    return std::vector{MedianOf(each)};
  };
  const Block subject = [&] {
    std::vector<double> each;
    reader->Copy(block, Milliseconds(1000));
    for (int i = 0; i < kBlock; ++i) {
      if (!reader->WaitForFrame(block.frameCount, Milliseconds(2000))) {
        throw std::runtime_error("a frame does not arrive");
      }
      reader->Copy(block, Milliseconds(1000));
      each.push_back(static_cast<double>(ClockTicks() - stamp) * kNanosecondsPerTick);
    }
    return std::vector{MedianOf(each)};
  };
  report.Ratio("packet to client, over a bare libusb transfer", Interleave(30, floor, subject)[0],
               "ns", 1.5);
}

// Everything that this process does but playing the device and its kernel: the driver, libusb, the
// engine and the publication. Nothing is taken off.
void Cpu(Report& report, UsbBus& bus) {
  auto port =
      std::make_unique<StandInUsbPort>(bus, Must(bus.Attach(1, kIdentity)), kIdentity.answers);
  StandInUsbPort& device = *port;
  const EmulatorThread played = Play(std::move(port), 0xFFFF);
  TrackerEngine engine(AllDrivers());
  OpenLiberty(engine, 0xFFFF);
  const auto reader = OpenReader();
  engine.StartSampling();
  AwaitFrames(*reader, 16 * 240);
  constexpr std::chrono::seconds kObserved{8};
  const auto spent = [&device] { return CpuSecondsOf(::getpid()) - device.DeviceCpuSeconds(); };
  const double before = spent();
  const std::uint64_t calls = device.Calls();
  const int frames = FrameCount(*reader);
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(kObserved);
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
  report.AtMost("CPU of 16 stations at 240 Hz, driver to publication",
                100 * (spent() - before) / time.count(), "%", 4);
  report.AtLeast("frames of them in a second", (FrameCount(*reader) - frames) / time.count() / 16,
                 "", 239);
  char text[100];
  std::snprintf(text, sizeof text, "%.0f calls to the kernel's USB in a second",
                static_cast<double>(device.Calls() - calls) / time.count());
  report.Note(text);
}

void Measure(Report& report) {
  ThrowAwayErrors();  // the engine's start-up lines
  const auto bus = Must(UsbBus::Make());
  PacketToClient(report, *bus);
  Cpu(report, *bus);
}

// umockdev must stand before this process's C library to show it the bus.
void StartAgainWithTheBus(char** arguments) {
  if (std::getenv("LD_PRELOAD") != nullptr) return;
  const auto bus = UsbBus::Make();
  if (!bus.Ok()) return;
  const auto preload = (*bus)->Environment()[0];
  ::setenv(preload.first.c_str(), preload.second.c_str(), 1);
  ::execv("/proc/self/exe", arguments);
}

}  // namespace
}  // namespace kinetrel::bench

int main(int, char** arguments) {
  kinetrel::bench::StartAgainWithTheBus(arguments);
  return kinetrel::bench::RunBenchmark("bench-usb", kinetrel::bench::Measure);
}

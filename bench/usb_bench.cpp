// A tracker on USB: from the packet to a client over a bare libusb transfer, and what 16 stations
// at 240 Hz cost. The bus is played by this process, through umockdev, for both sides alike.
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
  return Must(EmulatorThread::Start(std::make_unique<LibertyEmulator>(settings, MakeRamp()),
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

void PacketToClient(Report& report, UsbBus& bus) {
  std::atomic<std::int64_t> stamp{0};
  const EmulatorThread played =
      Play(std::make_unique<StampedPort>(Must(bus.Attach(1, kIdentity)), stamp), 1);
  TrackerEngine engine(AllDrivers());
  StartConfig config;
  config.shmDevice = kBenchDevice;
  config.usbUnit = "usb:1-1";
  engine.Configure(config);
  if (engine.Open(kLiberty, StartConfig::kUsbPort, false) != OpenResult::Opened) {
    throw std::runtime_error("the Liberty does not open");
  }
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

// % of a core that a process takes.
double CpuOf(const Child& process) {
  constexpr std::chrono::seconds kObserved{4};
  const double cpu = CpuSecondsOf(process.pid());
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(kObserved);
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
  return 100 * (CpuSecondsOf(process.pid()) - cpu) / time.count();
}

// Reads the same frames with bare transfers.
void ReadBare() {
  BareDevice device(1);
  for (const std::string command : {"F1\r", "U1\r", "O*,2,4,9\r", "C\r"}) {
    std::copy(command.begin(), command.end(), device.buffer().begin());
    if (!device.Begin(0x04, command.size())) return;
    device.Await();
  }
  while (device.Begin(kIdentity.answers, device.buffer().size())) device.Await();
}

// The bus is played by another process than the kernel, so each call to it costs many times as
// much. What bare transfers cost here is therefore taken off.
void Cpu(Report& report, UsbBus& bus) {
  double bare = 0;
  {
    const EmulatorThread played = Play(Must(bus.Attach(1, kIdentity)), 0xFFFF);
    Child reading(ReadBare);
    SleepFor(Milliseconds(1000));
    bare = CpuOf(reading);
    reading.Kill();
  }
  const EmulatorThread played = Play(Must(bus.Attach(1, kIdentity)), 0xFFFF);
  const auto reader = OpenReader();
  Child tracker([] {
    RunProgram("kinetrel",
               {"-d10", "-p", "usb:1-1", "-s0xFFFF", "-w", std::to_string(kBenchDevice + 1)});
  });
  AwaitFrames(*reader, 16 * 240);
  const int frames = FrameCount(*reader);
  const std::int64_t start = ClockTicks();
  const double whole = CpuOf(tracker);
  const double seconds = static_cast<double>(ClockTicks() - start) * kNanosecondsPerTick / 1e9;
  report.AtMost("CPU of 16 stations at 240 Hz above that of bare transfers", whole - bare, "%", 4);
  char text[100];
  std::snprintf(text, sizeof text, "%.1f %% in all, %.1f %% of it bare; %.1f frames a second",
                whole, bare, (FrameCount(*reader) - frames) / seconds / 16);
  report.Note(text);
  tracker.End();
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

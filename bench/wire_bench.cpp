// From a tracker's wire to a client: what the driver, the engine and the publication cost between
// the last byte of a record and the client's having its pose.
//
// The far end of each line is the emulated device, but its time is ours: a record leaves it in one
// piece at the moment we choose.
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "bench/floors.h"
#include "bench/machine.h"
#include "bench/publication.h"
#include "devices/serial_port.h"
#include "emulators/device_table.h"
#include "emulators/stepped_device.h"
#include "engine/tracker_engine.h"
#include "platform/pseudo_terminal.h"

namespace kinetrel::bench {
namespace {

constexpr int kRecordSize = 27;  // bytes; FASTRAK, position and angles as floats
constexpr auto kPatience = std::chrono::seconds(5);

std::unique_ptr<EmulatedDevice> MakeEmulated(const DeviceRow& row) {
  OptionValues none = OptionValues::Parse({}, {row.options()});
  return row.make(none, MakeHold({}));
}

// An emulated device that hands over what it sends when it is asked to, and answers its host in
// between as in real time.
class FarEnd {
 public:
  explicit FarEnd(const DeviceRow& row)
      : port_(OpenPort(row.baud)),
        device_(MakeEmulated(row), LineOptions{.baud = row.baud, .whole = true}) {}

  const std::string& path() const { return port_.path(); }

  void Listen() {
    std::array<std::byte, 256> bytes;
    if (port_.HostPresent() && !present_) device_.HostOpened(now_);
    present_ = port_.HostPresent();
    device_.SetHostBaud(now_, port_.HostBaud());
    const std::size_t got = port_.Read(bytes);
    device_.Receive(now_, std::span(bytes).first(got));
  }

  // Lets time run as it does, while the host boots the device.
  void Serve() {
    const std::int64_t start = ClockTicks();
    const Moment first = now_;
    while (!served_) {
      port_.Wait(std::chrono::milliseconds(1));
      now_ = first + Moment(ClockTicks() - start);
      Listen();
      Send(now_);
    }
  }
  void EndServing() { served_ = true; }

  // Waits until the device has something to send, in its own time, and sends it now.
  void SendNext() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
      Listen();
      const Moment next = device_.NextEvent();
      if (next != kNever && Send(next)) return;
      if (next == kNever) port_.Wait(std::chrono::milliseconds(1));
      if (std::chrono::steady_clock::now() > end) throw std::runtime_error("no record to send");
    }
  }

 private:
  static PseudoTerminal OpenPort(unsigned baud) {
    Result<PseudoTerminal> port = PseudoTerminal::Open(baud);
    if (!port.Ok()) throw std::runtime_error(Describe(port.status()));
    return std::move(*port);
  }

  bool Send(Moment until) {
    std::vector<std::byte> out;
    now_ = std::max(now_, until);
    device_.Advance(now_, out);
    if (!out.empty()) port_.Write(out);
    return !out.empty();
  }

  PseudoTerminal port_;
  SteppedDevice device_;
  Moment now_{0};
  bool present_ = false;
  std::atomic<bool> served_ = false;
};

// The whole road, from the far end of the wire to a client.
class Tracker final : public Handover {
 public:
  Tracker(const DeviceRow& row, bool streaming) : row_(row), streaming_(streaming) {}

  void OpenGiver() override {
    farEnd_ = std::make_unique<FarEnd>(row_);
    ::setenv("KINETREL_COM1", farEnd_->path().c_str(), 1);
    engine_ = std::make_unique<TrackerEngine>();
    engine_->Configure([&](StartConfig& config) {
      config.shmDevice = kBenchDevice;
      config.streaming = streaming_ ? 1 : 0;
      return true;
    });
    std::thread serving([this] { farEnd_->Serve(); });
    const OpenResult opened = engine_->Open(row_.kinetrelType, 1, false);
    farEnd_->EndServing();
    serving.join();
    if (opened != OpenResult::Opened) throw std::runtime_error("the tracker does not open");
    engine_->StartSampling();
  }
  void CloseGiver() override { engine_.reset(); }
  void Give() override { farEnd_->SendNext(); }
  void OpenTaker() override { client_.OpenTaker(); }
  void Take() override { client_.Take(); }

 private:
  const DeviceRow& row_;
  const bool streaming_;
  std::unique_ptr<FarEnd> farEnd_;
  std::unique_ptr<TrackerEngine> engine_;
  Publication client_;
};

// How a driver would wait that asks for the queue's length and sleeps.
class SleepyLine final : public Handover {
 public:
  void OpenTaker() override { port_.OpenPort(line_.path().c_str(), 115200); }
  void Give() override { line_.Give(); }
  void Take() override {
    std::array<char, kRecordSize> record;
    while (port_.InputQueueLength() < kRecordSize) SerialPort::Pause(1);
    port_.Read(record.data(), kRecordSize);
  }

 private:
  BareLine line_{kRecordSize};
  SerialPort port_;
};

void WireToClient(Report& report, const DeviceRow& device, bool streaming) {
  const std::string item = std::string(device.name) + ": wire to client, over poll + read";
  try {
    BareLine bare(kRecordSize);
    Tracker tracker(device, streaming);
    report.Ratio(item,
                 MeasureHandover({.placement = Placement::OtherCpu, .cycles = 40, .blockSize = 15},
                                 bare, tracker)
                     .arrival,
                 "ns", 1.8);
  } catch (const std::runtime_error& why) {
    report.Undecided(item, why.what());
  }
}

void Measure(Report& report) {
  ThrowAwayErrors();  // the engine's start-up lines
  struct Row {
    const char* device;
    bool streaming;
  };
  for (const Row& row : {Row{"fastrak", true}, Row{"flock", true}, Row{"logitech", false},
                         Row{"pan-tilt", false}, Row{"intertrax", true}, Row{"gps", true}}) {
    WireToClient(report, *FindDevice(row.device), row.streaming);
  }
  Tracker tracker(*FindDevice("fastrak"), true);
  SleepyLine sleepy;
  const HandoverFigures figures = MeasureHandover(
      {.placement = Placement::OtherCpu, .cycles = 20, .blockSize = 15}, tracker, sleepy);
  report.AtLeast("a loop of 1 ms sleeps, over the whole road of a FASTRAK",
                 figures.arrival.ratio.middle, "", 5);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-wire", kinetrel::bench::Measure); }

#include "bench/far_end.h"
#include "drivers/driver_table.h"

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <utility>

#include "bench/machine.h"

namespace kinetrel::bench {
namespace {

constexpr Milliseconds kPatience{5000};
constexpr Milliseconds kNextLook{1};

std::unique_ptr<EmulatedDevice> MakeEmulated(const DeviceRow& row,
                                             const std::vector<const char*>& options) {
  OptionValues values = OptionValues::Parse(options, row.options());
  return row.make(values, MakeHold({}));
}

PseudoTerminal OpenTerminal(unsigned baud) {
  Result<PseudoTerminal> port = PseudoTerminal::Open(baud);
  if (!port.Ok()) throw std::runtime_error(Describe(port.status()));
  return std::move(*port);
}

}  // namespace

FarEnd::FarEnd(const DeviceRow& row, const std::vector<const char*>& options)
    : port_(OpenTerminal(row.baud)),
      device_(MakeEmulated(row, options), LineOptions{.baud = row.baud, .whole = true}) {}

void FarEnd::Listen() {
  std::array<std::byte, 256> bytes;
  const std::size_t got = port_.Read(bytes);
  if (port_.HasHost() && !std::exchange(present_, true)) device_.HostOpened(now_);
  device_.SetHostBaud(now_, port_.HostBaud());
  device_.Receive(now_, std::span(bytes).first(got));
}

void FarEnd::Run(Moment until) {
  now_ = std::max(now_, until);
  device_.Advance(now_, out_);
}

void FarEnd::Serve() {
  const std::int64_t start = ClockTicks();
  const Moment first = now_;
  while (!served_) {
    port_.Wait(kNextLook);
    now_ = first + Moment(ClockTicks() - start);
    Listen();
    Run(now_);
    SendRecord();
  }
  sent_ = 0;
}

// Takes the next bytes of the device; false while it waits for its host.
bool FarEnd::Fetch() {
  Listen();
  const Moment next = device_.NextEvent();
  if (next == kNever) {
    port_.Wait(kNextLook);
  } else {
    Run(next);
  }
  return !out_.empty();
}

void FarEnd::AwaitRecord(TellsPose tellsPose) {
  const Deadline deadline(kPatience);
  while (!Fetch() || !tellsPose(out_)) {
    out_.clear();  // sending it could publish a frame that is not timed
    if (deadline.Passed()) throw std::runtime_error("no record to send");
  }
}

void FarEnd::SendRecord() {
  if (out_.empty()) return;
  port_.Write(out_);
  out_.clear();
  ++sent_;
}

std::unique_ptr<TrackerEngine> OpenTracker(FarEnd& farEnd, int deviceType, bool streaming) {
  ::setenv("KINETREL_COM1", farEnd.path().c_str(), 1);
  auto engine = std::make_unique<TrackerEngine>(AllDrivers());
  StartConfig config;
  config.shmDevice = kBenchDevice;
  config.streaming = streaming ? 1 : 0;
  engine->Configure(config);
  std::thread serving([&farEnd] { farEnd.Serve(); });
  const OpenResult opened = engine->Open(deviceType, 1, false);
  farEnd.EndServing();
  serving.join();
  if (opened != OpenResult::Opened) throw std::runtime_error("the tracker does not open");
  return engine;
}

}  // namespace kinetrel::bench

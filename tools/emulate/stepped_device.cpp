#include "emulate/stepped_device.h"

#include <algorithm>
#include <utility>

namespace kinetrel::emulate {

SteppedDevice::SteppedDevice(std::unique_ptr<EmulatedDevice> device, LineOptions options)
    : device_(std::move(device)), line_(std::move(options)) {
  device_->PowerOn(Moment(0), line_);
}

void SteppedDevice::HostOpened(Moment now) {
  line_.Say(now, "the port is opened");
  device_->HostOpened(now, line_);
}

void SteppedDevice::SetHostBaud(Moment now, unsigned baud) {
  if (baud == hostBaud_ || baud == 0) return;
  hostBaud_ = baud;
  device_->HostRateChanged(now, baud, line_);
  if (RatesDiffer()) {
    line_.Say(now, "the host talks at " + std::to_string(baud) + " baud, the device at " +
                       std::to_string(line_.baud()) + ": both hear noise");
  }
}

void SteppedDevice::Receive(Moment now, std::span<const std::byte> bytes) {
  if (!RatesDiffer()) {
    device_->Receive(now, bytes, line_);
  } else {
    std::vector<std::byte> noise(bytes.size());
    for (std::byte& byte : noise) byte = line_.Noise();
    device_->Receive(now, noise, line_);
  }
  StrikeForeign(now);
}

void SteppedDevice::NewPoses(Moment now, std::uint32_t stations) {
  device_->NewPoses(now, stations, line_);
  StrikeForeign(now);
}

Moment SteppedDevice::NextEvent() const {
  return std::min({device_->NextEvent(), line_.NextFault(), line_.NextDeparture()});
}

void SteppedDevice::Advance(Moment now, std::vector<std::byte>& out) {
  const std::size_t before = out.size();
  for (;;) {
    const Moment next = std::min(device_->NextEvent(), line_.NextFault());
    if (next > now) break;
    line_.Take(next, out);  // bytes from before a silence are not lost
    Step(next);
  }
  line_.Take(now, out);
  if (!RatesDiffer()) return;
  for (std::size_t i = before; i < out.size(); ++i) out[i] = line_.Noise();
}

void SteppedDevice::Step(Moment next) {
  if (line_.NextFault() <= next) {
    for (const Fault& fault : line_.TakeDueFaults(next)) Strike(next, fault);
  } else {
    device_->OnEvent(next, line_);
  }
  StrikeForeign(next);
}

void SteppedDevice::StrikeForeign(Moment now) {
  for (const Fault& fault : line_.TakeForeignFaults()) Strike(now, fault);
}

void SteppedDevice::StrikeAll(Moment now, FaultTrigger asked) {
  for (const Fault& fault : line_.FaultsFor(asked)) Strike(now, fault);
}

void SteppedDevice::Strike(Moment now, const Fault& fault) {
  if (line_.Strike(now, fault)) return;
  line_.Say(now, "fault: " + std::string(NameOf(fault.kind)));
  switch (fault.kind) {
    case FaultKind::Error: {
      std::optional<int> code;
      if (fault.argument) code = static_cast<int>(*fault.argument);
      if (!device_->RaiseError(now, code)) line_.Say(now, "it knows no such error");
      break;
    }
    case FaultKind::Restart:
      line_.DropWaiting();
      device_->PowerOn(now, line_);
      break;
    default:
      portFault_ = fault;
  }
}

std::optional<Fault> SteppedDevice::TakePortFault() {
  return std::exchange(portFault_, std::nullopt);
}

}  // namespace kinetrel::emulate

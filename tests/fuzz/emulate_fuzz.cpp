// Any bytes from a host, at any times, to every emulated device.
//
// The first byte picks the device. Then 0xFD and 0xFE let time pass, by the next byte in
// milliseconds or hundredths of a second, five seconds in all; 0xFC is a fault, picked by the next
// byte; 0xFF makes the next byte one for the device; others are for the device.
#include <array>
#include <cstdlib>
#include <vector>

#include "emulate/device_table.h"
#include "emulate/stepped_device.h"

namespace {

using namespace kinetrel::emulate;

// Devices with options of their own. Every device of the table comes after them as it is.
const std::vector<std::vector<const char*>> kVariants = {
    {"fastrak", "--model=insidetrak", "--error=A", "--reset-time=0.1"},
    {"fastrak", "--model=isotrak", "--start=streaming"},
    {"fastrak", "--model=isotrak2", "--start=half-command", "--receivers=1"},
    {"fastrak", "--model=is600", "--start=half-record", "--reset-time=0.1"},
};

constexpr FaultKind kFaults[] = {FaultKind::Noise,   FaultKind::Garble, FaultKind::Cut,
                                 FaultKind::Silence, FaultKind::Error,  FaultKind::Restart};

SteppedDevice Make(std::uint8_t pick) {
  std::vector<const char*> arguments;
  pick = static_cast<std::uint8_t>(pick % (kVariants.size() + Devices().size()));
  if (pick < kVariants.size()) arguments = kVariants[pick];
  const DeviceRow& row =
      arguments.empty() ? Devices()[pick - kVariants.size()] : *FindDevice(arguments[0]);
  if (!arguments.empty()) arguments.erase(arguments.begin());
  OptionValues options = OptionValues::Parse(arguments, row.options());
  auto device = row.make(options, MakeRamp());
  if (!options.complaint().empty()) std::abort();
  LineOptions line{row.baud};
  line.show = [](Moment, const std::string&) {};
  return {std::move(device), std::move(line)};
}

class Player {
 public:
  explicit Player(std::uint8_t pick) : device_(Make(pick)) { device_.HostOpened(now_); }

  void Play(std::uint8_t byte) {
    if (code_ == 0 && byte >= 0xFC) {
      code_ = byte;
      return;
    }
    switch (std::exchange(code_, std::uint8_t{0})) {
      case 0xFC:
        device_.Strike(now_, {kFaults[byte % std::size(kFaults)]});
        break;
      case 0xFD:
        Pass(std::chrono::milliseconds(byte));
        break;
      case 0xFE:
        Pass(std::chrono::milliseconds(10 * byte));
        break;
      default: {
        const std::array bytes{static_cast<std::byte>(byte)};
        device_.Receive(now_, bytes);
      }
    }
  }

  // An event that is not after the last one would keep the device busy for ever; bytes from nowhere
  // would be more than the line carries.
  void Pass(Moment time) {
    if (now_ > std::chrono::seconds(5)) return;
    std::vector<std::byte> out;
    now_ += time;
    device_.Advance(now_, out);
    if (device_.NextEvent() <= now_ || out.size() > 4'000'000) std::abort();
  }

 private:
  SteppedDevice device_;
  Moment now_{0};
  std::uint8_t code_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  Player player(data[0]);
  for (std::size_t i = 1; i < size; ++i) player.Play(data[i]);
  player.Pass(std::chrono::milliseconds(500));
  return 0;
}

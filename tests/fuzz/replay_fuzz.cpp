// A capture of any steps, played to a host that does anything.
//
// The first byte chooses the options. Each of the others is a command, which takes the bytes after
// it: steps of the captured line first, in a file, and from 0xF0 on what the host does.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "emulate/replay_device.h"
#include "emulate/stepped_device.h"
#include "mcap/recording_writer.h"

namespace {

using namespace kinetrel;
using namespace kinetrel::emulate;
using mcap::TopicKind;

constexpr std::array kSteps{TopicKind::LineReceived, TopicKind::LineSent, TopicKind::LineOpened,
                            TopicKind::LineSettings, TopicKind::LineLost, TopicKind::LineClosed,
                            TopicKind::CaptureLost};

class Input {
 public:
  explicit Input(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
  bool Ends() const { return bytes_.empty(); }
  std::uint8_t Peek() const { return Ends() ? std::uint8_t{0} : bytes_.front(); }
  std::uint8_t Byte() {
    const std::uint8_t byte = Peek();
    if (!Ends()) bytes_ = bytes_.subspan(1);
    return byte;
  }
  std::span<const std::byte> Bytes() {
    const auto taken = bytes_.first(std::min<std::size_t>(Byte() % 32, bytes_.size()));
    bytes_ = bytes_.subspan(taken.size());
    return std::as_bytes(taken);
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

void WriteCapture(const std::filesystem::path& path, Input& input) {
  mcap::RecordingWriter writer;
  if (!writer.Open(path, "1").Ok()) std::abort();
  std::uint64_t time = 1'000'000'000'000;
  while (!input.Ends() && input.Peek() < 0xF0) {
    const std::uint8_t command = input.Byte();
    const TopicKind kind = kSteps[command % kSteps.size()];
    // Most steps follow in milliseconds; some clocks leap, forth or back.
    const std::uint64_t wait = std::uint64_t{input.Byte()} * 1'000'000;
    time = command >= 0xE0 ? time ^ wait << (command % 32) : time + wait;
    if (kind == TopicKind::LineReceived || kind == TopicKind::LineSent) {
      (void)writer.WriteBytes({.kind = kind}, time, time, input.Bytes());
    } else {
      (void)writer.WriteJson({.kind = kind}, time,
                             "{\"n\":" + std::to_string(input.Byte() * 100) + "}");
    }
  }
  (void)writer.Close();
}

class Player {
 public:
  explicit Player(SteppedDevice device) : device_(std::move(device)) {}

  void Play(Input& input) {
    switch (input.Byte() % 4) {
      case 0:
        device_.HostOpened(now_);
        break;
      case 1:
        device_.SetHostBaud(now_, input.Byte() * 100U);
        break;
      case 2:
        device_.Receive(now_, input.Bytes());
        break;
      default:
        Pass(std::chrono::milliseconds(input.Byte() * 10));
    }
  }

  // An event that is not after the last one would keep the device busy for ever.
  void Pass(Moment time) {
    std::vector<std::byte> out;
    now_ += time;
    device_.Advance(now_, out);
    if (device_.NextEvent() <= now_ || out.size() > 1'000'000) std::abort();
    if (const auto fault = device_.TakePortFault(); fault && fault->Or(1) > 1e6) std::abort();
  }

 private:
  SteppedDevice device_;
  Moment now_{0};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::filesystem::path path =
      "/dev/shm/kinetrel-fuzz-replay-" + std::to_string(getpid()) + ".mcap";
  Input input({data, size});
  const std::uint8_t choice = input.Byte();
  WriteCapture(path, input);
  CapturedLine capture;
  if (capture.Open(path).empty()) {
    constexpr std::array kSpeeds{1.0, 4.0, 0.01, 100.0};
    LineOptions line{.baud = 4'000'000'000, .whole = true, .anyRate = true};
    line.show = [](Moment, const std::string&) {};
    const ReplayOptions options{.speed = kSpeeds[choice % 4], .loop = (choice & 4) != 0};
    Player player({std::make_unique<ReplayDevice>(std::move(capture), options), std::move(line)});
    while (!input.Ends()) player.Play(input);
    player.Pass(std::chrono::seconds(10));
  }
  std::filesystem::remove(path);
  return 0;
}

#include "record/markers.h"

#include <array>
#include <cstddef>
#include <span>
#include <utility>

namespace kinetrel::record {
namespace {

constexpr std::size_t kLongestMarker = 1000;  // characters; what follows is left out
constexpr int kMostAtOnce = 1000;  // of either kind: a flood must not keep the poses from the disk
constexpr int kEnter = 13;
constexpr int kBackspace = 8;

// The text of a packet: its first line.
std::string TextOf(std::span<const std::byte> packet) {
  std::string text;
  for (const std::byte each : packet) {
    if (each == std::byte{'\n'} || each == std::byte{'\r'} || each == std::byte{}) break;
    text += static_cast<char>(each);
  }
  return text;
}

}  // namespace

Status Markers::Listen(std::uint16_t port, bool fromNetwork) {
  auto opened = DatagramSocket::Open(port, fromNetwork ? Reach::Network : Reach::ThisMachine);
  if (!opened.Ok()) return opened.status();
  socket_.emplace(std::move(*opened));
  return {};
}

bool Markers::Take(std::vector<std::string>& found) {
  found.clear();
  for (int i = 0; i < kMostAtOnce; ++i) {
    const std::optional<Key> key = TakeKey();
    if (!key) {
      if (!IsKeyWaiting()) break;
      continue;
    }
    if (key->extended) continue;
    const auto character = static_cast<char>(key->code);
    if (line_.empty() && endKey_ == std::string(1, character)) return false;
    if (key->code == kEnter || key->code == '\n') {
      if (!line_.empty()) found.push_back(std::exchange(line_, {}));
    } else if (key->code == kBackspace) {
      if (!line_.empty()) line_.pop_back();
    } else if (key->code >= ' ' && key->code < 256 && line_.size() < kLongestMarker) {
      line_ += character;
    }
  }
  std::array<std::byte, kLongestMarker> packet;
  for (int i = 0; socket_ && i < kMostAtOnce; ++i) {
    const Result<std::size_t> size = socket_->Receive(packet);
    if (!size.Ok()) break;
    found.push_back(TextOf(std::span(packet).first(*size)));
  }
  return true;
}

}  // namespace kinetrel::record

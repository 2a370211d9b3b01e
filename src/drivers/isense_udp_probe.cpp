#include "drivers/isense_udp_probe.h"

#include <array>
#include <utility>

namespace kinetrel {
namespace {

constexpr int kLastPort = 0xFFFF;
constexpr int kReceiveBuffer = 65536;
constexpr std::size_t kDatagramRoom = 2048;
constexpr std::size_t kEnough = 1024 * 1024;

}  // namespace

// The probe works even when the system refuses the two options.
Status UdpProbe::Open(int port) {
  Close();
  if (port < 0 || port > kLastPort) return {Error::Invalid, 0, "open the UDP port"};
  Result<DatagramSocket> opened = DatagramSocket::Open(static_cast<std::uint16_t>(port));
  if (!opened.Ok()) return opened.status();
  opened->SetReceiveBuffer(kReceiveBuffer);
  opened->AllowBroadcast();
  socket_.emplace(std::move(*opened));
  port_ = port;
  return {};
}

std::size_t UdpProbe::Drain() {
  std::array<std::byte, kDatagramRoom> datagram;
  std::size_t total = 0;
  while (socket_ && total < kEnough) {
    const Result<std::size_t> got = socket_->Receive(datagram);
    if (!got.Ok() || *got == 0) break;
    total += *got;
  }
  return total;
}

void UdpProbe::Close() {
  socket_.reset();
  port_ = kClosed;
}

}  // namespace kinetrel

#include "bridge/udp_output.h"

#include <cmath>
#include <numbers>

namespace kinetrel::bridge {

bool UdpOutput::SendPackets() {
  const bool sent = packets_.size() > 0 && sender_.Send(packets_);
  packets_.Clear();
  return sent;
}

double Degrees(double radians) { return std::remainder(radians * 180 / std::numbers::pi, 360.0); }

}  // namespace kinetrel::bridge

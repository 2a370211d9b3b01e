#include "bridge/udp_output.h"

#include <cmath>
#include <numbers>

namespace kinetrel::bridge {
void UdpOutput::SendFrame(std::span<const Packet> packets) {
  bool sent = false;
  for (const Packet& packet : packets) sent = sender_.Send(packet) || sent;
  if (sent) ++counts().frames;
}

Angles AnglesIn(const Feed& feed, const Pose& pose) {
  const Matrix& own = FindAxesPreset(feed.protocol->axes)->axes.rows;
  if (feed.selector.axes().rows == own) return pose.angles;
  return AnglesOf(MatrixOf(OrientationIn({Transposed(own), 1}, pose.orientation)));
}

double Degrees(double radians) { return std::remainder(radians * 180 / std::numbers::pi, 360.0); }

}  // namespace kinetrel::bridge

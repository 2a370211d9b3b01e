#include "bridge/dtrack.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "bridge/text.h"

namespace kinetrel::bridge {
namespace {

constexpr std::int64_t kDayUs = 86'400'000'000;

double Degrees(double radians) { return radians * 180 / std::numbers::pi; }

// begin  before the first number.
void AppendNumbers(PacketWriter& packet, char begin, std::span<const double> numbers,
                   int decimals) {
  for (const double number : numbers) {
    packet.U8(static_cast<unsigned char>(begin)).Text(Fixed(number, decimals));
    begin = ' ';
  }
}

void AppendBody(PacketWriter& packet, const DTrackBody& body) {
  const std::array<double, 9>& r = body.rotation;
  const std::array<double, 3> angles = {Degrees(std::atan2(-r[5], r[8])),
                                        Degrees(std::asin(std::clamp(r[2], -1.0, 1.0))),
                                        Degrees(std::atan2(-r[1], r[0]))};
  const std::array<double, 9> columns = {r[0], r[3], r[6], r[1], r[4], r[7], r[2], r[5], r[8]};
  packet.Text(" [").Text(std::to_string(body.id)).Text(" 1.000]");
  AppendNumbers(packet, '[', body.position, 3);
  AppendNumbers(packet, ' ', angles, 4);
  packet.Text("]");
  AppendNumbers(packet, '[', columns, 6);
  packet.Text("]");
}

}  // namespace

void EncodeDTrack(PacketWriter& packet, std::uint32_t frame, std::int64_t utcNs, unsigned known,
                  std::span<const DTrackBody> bodies) {
  const std::int64_t us = utcNs / 1000 % kDayUs;
  packet.Text("fr ").Text(std::to_string(frame)).Text("\r\nts ");
  packet.Text(Fixed(static_cast<double>(us) / 1e6, 6)).Text("\r\n6dcal ");
  packet.Text(std::to_string(known)).Text("\r\n6d ").Text(std::to_string(bodies.size()));
  for (const DTrackBody& body : bodies) AppendBody(packet, body);
  packet.Text("\r\n");
}

}  // namespace kinetrel::bridge

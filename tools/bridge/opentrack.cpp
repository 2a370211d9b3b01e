#include "bridge/opentrack.h"

#include "bridge/text.h"

namespace kinetrel::bridge {

Packet EncodeOpentrack(const std::array<double, 6>& values) {
  PacketWriter packet;
  for (const double value : values) packet.F64Le(value);
  return packet.Take();
}

std::string DescribeOpentrack(std::span<const std::byte> packet) {
  PacketReader reader(packet);
  std::string text;
  for (const char* const name : {"TX", "TY", "TZ", "yaw", "pitch", "roll"}) {
    AppendField(text, name, reader.F64Le(), 4);
  }
  return reader.AtEnd() ? text : "damaged opentrack packet";
}

}  // namespace kinetrel::bridge

#include "bridge/opentrack.h"

#include "bridge/text.h"

namespace kinetrel::bridge {

void EncodeOpentrack(PacketWriter& packet, const std::array<double, 6>& values) {
  for (const double value : values) packet.F64Le(value);
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

#include "bridge/freed.h"

#include <numeric>

#include "bridge/text.h"

namespace kinetrel::bridge {
namespace {

constexpr std::size_t kSize = 29;
constexpr unsigned kType = 0xD1;
constexpr unsigned kSum = 0x40;  // of all bytes
constexpr double kAngleParts = 32768;
constexpr double kLengthParts = 64;

unsigned Sum(std::span<const std::byte> bytes) {
  return std::accumulate(
             bytes.begin(), bytes.end(), 0U,
             [](unsigned sum, std::byte byte) { return sum + std::to_integer<unsigned>(byte); }) &
         0xFF;
}

std::uint32_t Angle(double degrees) {
  return static_cast<std::uint32_t>(
      RoundedToBits(std::clamp(degrees, -180.0, 180.0) * kAngleParts, 24));
}

std::uint32_t Length(double mm) {
  return static_cast<std::uint32_t>(RoundedToBits(mm * kLengthParts, 24));
}

std::uint32_t U24Be(PacketReader& reader) {
  const std::uint32_t high = reader.U8();
  return high << 16 | reader.U16Be();
}

double I24Be(PacketReader& reader) {
  return static_cast<double>(static_cast<std::int32_t>(U24Be(reader) ^ 0x800000U) - 0x800000);
}

}  // namespace

void EncodeFreeD(PacketWriter& packet, const FreeDPose& pose) {
  const std::size_t start = packet.size();
  packet.U8(kType).U8(pose.camera);
  for (const double angle : {pose.pan, pose.tilt, pose.roll}) packet.U24Be(Angle(angle));
  for (const double length : {pose.x, pose.y, pose.height}) packet.U24Be(Length(length));
  packet.U24Be(pose.zoom).U24Be(pose.focus).U16Be(0);
  packet.U8(kSum - Sum(packet.bytes().subspan(start)));
}

std::string DescribeFreeD(std::span<const std::byte> packet) {
  PacketReader reader(packet);
  if (packet.size() != kSize || reader.U8() != kType || Sum(packet) != kSum) {
    return "damaged Free-D message";
  }
  std::string text = "camera " + std::to_string(reader.U8());
  for (const char* const name : {"pan", "tilt", "roll"}) {
    AppendField(text, name, I24Be(reader) / kAngleParts, 4);
  }
  for (const char* const name : {"x", "y", "height"}) {
    AppendField(text, name, I24Be(reader) / kLengthParts, 2);
  }
  AppendField(text, "zoom", U24Be(reader), 0);
  AppendField(text, "focus", U24Be(reader), 0);
  return text;
}

}  // namespace kinetrel::bridge

#include "mcap/pose_stamped.h"

#include <algorithm>

#include "devices/wire.h"

namespace kinetrel::mcap {
namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::array kLittleEndianCdr{std::byte{0}, std::byte{1}, std::byte{0}, std::byte{0}};

}  // namespace

Schema PoseStampedSchema() {
  const std::array parts = {
      "std_msgs/Header\nbuiltin_interfaces/Time stamp\nstring frame_id\n",
      "builtin_interfaces/Time\nint32 sec\nuint32 nanosec\n",
      "geometry_msgs/Pose\ngeometry_msgs/Point position\ngeometry_msgs/Quaternion orientation\n",
      "geometry_msgs/Point\nfloat64 x\nfloat64 y\nfloat64 z\n",
      "geometry_msgs/Quaternion\nfloat64 x\nfloat64 y\nfloat64 z\nfloat64 w\n",
  };
  std::string text = "std_msgs/Header header\ngeometry_msgs/Pose pose\n";
  for (const char* const part : parts) {
    text += std::string(80, '=') + "\nMSG: " + part;
  }
  return {"geometry_msgs/msg/PoseStamped", "ros2msg", std::move(text)};
}

Channel PoseStampedChannel(std::uint16_t schema, std::string topic) {
  return {.schema = schema,
          .topic = std::move(topic),
          .encoding = "cdr",
          .metadata = {{"offered_qos_profiles", ""}}};
}

void EncodePoseStamped(const PoseStamped& pose, std::vector<std::byte>& into) {
  into.clear();
  ByteSink sink(into);
  sink.Bytes(kLittleEndianCdr);
  sink.U32(static_cast<std::uint32_t>(pose.utcNs / kSecond));
  sink.U32(static_cast<std::uint32_t>(pose.utcNs % kSecond));
  sink.U32(static_cast<std::uint32_t>(pose.frame.size() + 1));
  sink.Bytes(std::as_bytes(std::span(pose.frame)));
  sink.U8(0);
  while ((into.size() - kLittleEndianCdr.size()) % 8 != 0) sink.U8(0);
  for (const double value : pose.position) sink.F64(value);
  for (const std::size_t i : {1U, 2U, 3U, 0U}) sink.F64(pose.orientation[i]);
}

std::optional<PoseStamped> DecodePoseStamped(std::span<const std::byte> bytes) {
  WireReader reader(bytes);
  const std::span<const std::byte> kind = reader.Bytes(kLittleEndianCdr.size());
  if (!std::ranges::equal(kind, kLittleEndianCdr)) return std::nullopt;
  PoseStamped pose;
  const std::uint32_t seconds = reader.U32Le();
  pose.utcNs = seconds * kSecond + reader.U32Le();
  const std::uint32_t length = reader.U32Le();
  const std::span<const std::byte> frame = reader.Bytes(length);
  if (frame.empty() || frame.back() != std::byte{}) return std::nullopt;
  for (const std::byte each : frame.first(length - 1U)) pose.frame += static_cast<char>(each);
  while (reader.Ok() && (bytes.size() - reader.Remaining() - kLittleEndianCdr.size()) % 8 != 0) {
    reader.Skip(1);
  }
  for (double& value : pose.position) value = reader.F64Le();
  for (const std::size_t i : {1U, 2U, 3U, 0U}) pose.orientation[i] = reader.F64Le();
  if (!reader.AtEnd()) return std::nullopt;
  return pose;
}

}  // namespace kinetrel::mcap

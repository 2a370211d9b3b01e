#include "mcap/recording_writer.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

namespace kinetrel::mcap {

std::uint64_t UtcNow() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                        std::chrono::system_clock::now().time_since_epoch())
                                        .count());
}

Status RecordingWriter::Open(const std::filesystem::path& path, const std::string& version) {
  Status opened = writer_.Open(path, "");
  poseSchema_ = writer_.AddSchema(PoseStampedSchema());
  metadata_["version"] = version;
  return opened;
}

Status RecordingWriter::WriteRun(int slot, const kinetrel_run& run) {
  SlotState& state = slots_[slot];
  state.clocks = run;
  state.buttons.clear();
  const std::string prefix = "slot " + std::to_string(slot) + " ";
  metadata_[prefix + "device"] = run.device_name;
  metadata_[prefix + "device type"] = std::to_string(run.device_type);
  metadata_[prefix + "nominal rate"] = std::to_string(run.nominal_rate);
  metadata_[prefix + "components"] = std::to_string(run.components);
  metadata_[prefix + "sensor mask"] = std::to_string(run.sensor_mask);
  for (unsigned sensor = 0; sensor < kinetrel_stream_sensors; ++sensor) {
    if ((run.sensor_mask >> sensor & 1U) == 0) continue;
    ChannelOf({.kind = TopicKind::Pose, .slot = slot, .sensor = static_cast<int>(sensor) + 1},
              &run);
  }
  return WriteTexts();
}

Status RecordingWriter::WriteRecord(int slot, const kinetrel_record& record,
                                    const kinetrel_device_pose* own) {
  Topic topic{.kind = TopicKind::Pose, .slot = slot, .sensor = static_cast<int>(record.sensor) + 1};
  Status written = WritePose(topic, record, record.position, record.orientation, record.flags);
  const bool hasOwn = own != nullptr && own->number != 0;
  if (written.Ok() && hasOwn && (record.flags & kinetrel_filtered) != 0) {
    topic.kind = TopicKind::DevicePose;
    written = WritePose(topic, record, own->position, own->orientation, own->flags);
  }
  if (!written.Ok() || (record.flags & kinetrel_buttons_valid) == 0) return written;
  auto [before, isFirst] = slots_[slot].buttons.try_emplace(record.sensor, record.buttons);
  if (!isFirst && before->second == record.buttons) return written;
  before->second = record.buttons;
  topic.kind = TopicKind::Buttons;
  return WriteJson(topic, Utc(slot, record.publish_ns),
                   "{\"buttons\":" + std::to_string(record.buttons) +
                       ",\"known\":" + std::to_string(record.buttons_known) + "}");
}

Status RecordingWriter::WritePose(const Topic& topic, const kinetrel_record& record,
                                  const double (&position)[3], const float (&orientation)[4],
                                  unsigned flags) {
  constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
  const bool hasPosition = (flags & kinetrel_position_valid) != 0;
  const bool hasOrientation = (flags & kinetrel_orientation_valid) != 0;
  pose_.utcNs = Utc(topic.slot, record.sample_ns);
  pose_.frame = "kinetrel/" + std::to_string(topic.slot);
  for (std::size_t i = 0; i < 3; ++i) pose_.position[i] = hasPosition ? position[i] : kNone;
  for (std::size_t i = 0; i < 4; ++i) {
    pose_.orientation[i] = hasOrientation ? static_cast<double>(orientation[i]) : kNone;
  }
  EncodePoseStamped(pose_, bytes_);
  const std::uint64_t published = Utc(topic.slot, record.publish_ns);
  return writer_.Write(ChannelOf(topic), static_cast<std::uint32_t>(record.frame), published,
                       published, bytes_);
}

Status RecordingWriter::WriteJson(const Topic& topic, std::uint64_t utcNs,
                                  const std::string& json) {
  return WriteBytes(topic, utcNs, utcNs, std::as_bytes(std::span(json)));
}

Status RecordingWriter::WriteBytes(const Topic& topic, std::uint64_t logNs, std::uint64_t publishNs,
                                   std::span<const std::byte> bytes) {
  return writer_.Write(ChannelOf(topic), 0, logNs, publishNs, bytes);
}

std::uint16_t RecordingWriter::ChannelOf(const Topic& topic, const kinetrel_run* run) {
  std::string name = TopicName(topic);
  if (const auto known = channels_.find(name); known != channels_.end()) return known->second;
  Channel channel{0, name, "json", {}};
  if (topic.kind == TopicKind::Pose || topic.kind == TopicKind::DevicePose) {
    channel = PoseStampedChannel(poseSchema_, name);
  } else if (topic.kind == TopicKind::LineReceived || topic.kind == TopicKind::LineSent) {
    channel.encoding = "bytes";
  }
  if (run != nullptr && topic.sensor > 0) {
    const char* sensorName = run->sensor_names[topic.sensor - 1];
    if (*sensorName != '\0') channel.metadata["sensor name"] = sensorName;
  }
  const std::uint16_t id = writer_.AddChannel(std::move(channel));
  channels_.emplace(std::move(name), id);
  return id;
}

std::uint64_t RecordingWriter::Utc(int slot, std::int64_t timeNs) {
  const kinetrel_run& clocks = slots_[slot].clocks;
  if (clocks.utc_ns == 0) return UtcNow();
  return static_cast<std::uint64_t>(
      std::max<std::int64_t>(clocks.utc_ns + (timeNs - clocks.clock_ns), 0));
}

}  // namespace kinetrel::mcap

#include "recording/recorded_frames.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <utility>

#include "mcap/pose_stamped.h"

namespace kinetrel::record {
namespace {

using mcap::ParseTopic;
using mcap::Topic;
using mcap::TopicKind;

constexpr int kMostSensors = 32;
constexpr double kHighestRate = 1e6;  // Hz; above it the text is not a rate

// The member of a JSON object; nothing if the message is not one, or the member of another type.
template <typename Value>
std::optional<Value> Member(const mcap::Message& message, const char* name) {
  const auto* text = static_cast<const char*>(static_cast<const void*>(message.data.data()));
  const nlohmann::json json =
      nlohmann::json::parse(text, text + message.data.size(), nullptr, false);
  if (!json.is_object() || !json.contains(name)) return std::nullopt;
  const nlohmann::json& member = json.at(name);
  if constexpr (std::is_integral_v<Value>) {
    if (!member.is_number_unsigned()) return std::nullopt;
  } else if (!member.is_string()) {
    return std::nullopt;
  }
  return member.get<Value>();
}

}  // namespace

std::string RecordedFrames::Open(const std::filesystem::path& path, int slot) {
  if (std::string complaint = reader_.Open(path); !complaint.empty()) return complaint;
  // A file that was cut names its channels only as it is read.
  const auto hasPoses = [&] {
    return std::ranges::any_of(reader_.channels(), [](const auto& each) {
      return ParseTopic(each.second.topic).kind == TopicKind::Pose;
    });
  };
  while (!reader_.whole() && !hasPoses() && reader_.Next()) continue;
  slot_ = slot;
  for (const auto& [id, channel] : reader_.channels()) {
    const Topic topic = ParseTopic(channel.topic);
    if (topic.kind != TopicKind::Pose || topic.sensor > kMostSensors) continue;
    if (slot_ == 0) slot_ = topic.slot;
    (topic.slot == slot_ ? sensors_ : otherSlots_)
        .push_back(topic.slot == slot_ ? topic.sensor : topic.slot);
  }
  for (std::vector<int>* each : {&sensors_, &otherSlots_}) {
    std::ranges::sort(*each);
    each->erase(std::unique(each->begin(), each->end()), each->end());
  }
  if (sensors_.empty()) {
    return slot == 0 ? "it holds no poses of a tracker."
                     : "it holds no poses of slot " + std::to_string(slot) + ".";
  }
  Rewind();
  return {};
}

void RecordedFrames::Rewind() { Seek(0); }

void RecordedFrames::Seek(std::uint64_t utcNs) {
  reader_.Seek(utcNs);
  next_.reset();
  nextMarkers_.clear();
}

bool RecordedFrames::Next(RecordedFrame& frame) {
  frame.poses.clear();
  frame.markers = std::exchange(nextMarkers_, {});
  if (next_) {
    frame.poses.push_back(*std::exchange(next_, std::nullopt));
    frame.number = nextNumber_;
  }
  while (const auto message = reader_.Next()) {
    const Topic topic = ParseTopic(message->channel->topic);
    if (topic.kind == TopicKind::Marker) {
      nextMarkers_.push_back(
          {message->logTime, Member<std::string>(*message, "text").value_or("")});
      continue;
    }
    if (topic.slot != slot_ || topic.sensor < 1 || topic.sensor > kMostSensors) continue;
    auto& buttons = buttons_[static_cast<std::size_t>(topic.sensor)];
    if (topic.kind == TopicKind::Buttons) {
      buttons = Member<std::uint32_t>(*message, "buttons");
      // They were published with the pose before.
      for (RecordedPose& each : frame.poses) {
        if (each.sensor == topic.sensor) each.buttons = buttons;
      }
    }
    if (topic.kind != TopicKind::Pose) continue;
    const auto pose = mcap::DecodePoseStamped(message->data);
    if (!pose) continue;
    RecordedPose read{.sensor = topic.sensor,
                      .sampleUtcNs = pose->utcNs,
                      .position = pose->position,
                      .orientation = pose->orientation,
                      .buttons = buttons};
    const bool begins = frame.poses.empty() || message->sequence != frame.number;
    if (begins && !frame.poses.empty()) {
      next_ = read;
      nextNumber_ = message->sequence;
      frame.utcNs = frame.poses.front().sampleUtcNs;
      return true;
    }
    if (begins) {
      frame.number = message->sequence;
      std::ranges::move(std::exchange(nextMarkers_, {}), std::back_inserter(frame.markers));
    }
    frame.poses.push_back(read);
  }
  if (frame.poses.empty()) {
    nextMarkers_.insert(nextMarkers_.begin(), frame.markers.begin(), frame.markers.end());
    return false;
  }
  frame.utcNs = frame.poses.front().sampleUtcNs;
  return true;
}

std::string RecordedFrames::DeviceName() {
  const std::string name = Text("device");
  return name.empty() ? "recorded tracker" : name;
}

double RecordedFrames::NominalRate() {
  const double rate = std::strtod(Text("nominal rate").c_str(), nullptr);
  return rate > 0 && rate < kHighestRate ? rate : 0;
}

std::string RecordedFrames::Text(const char* key) {
  const mcap::TextMap texts = reader_.Metadata(mcap::kMetadataName);
  const auto found = texts.find("slot " + std::to_string(slot_) + " " + key);
  return found == texts.end() ? "" : found->second;
}

}  // namespace kinetrel::record

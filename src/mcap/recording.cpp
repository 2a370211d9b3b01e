#include "mcap/recording.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace kinetrel::mcap {
namespace {

struct Row {
  TopicKind kind;
  std::string_view name;
  bool ofSensor;
};
constexpr std::array kRows{
    Row{TopicKind::Pose, "pose", true},       Row{TopicKind::DevicePose, "device_pose", true},
    Row{TopicKind::Buttons, "buttons", true}, Row{TopicKind::State, "state", false},
    Row{TopicKind::Log, "log", false},
};
// Those that are of no slot.
struct WholeName {
  TopicKind kind;
  std::string_view name;
};
constexpr std::array kWholeNames{
    WholeName{TopicKind::Marker, "/kinetrel/markers"},
    WholeName{TopicKind::LineReceived, "/kinetrel/line/received"},
    WholeName{TopicKind::LineSent, "/kinetrel/line/sent"},
    WholeName{TopicKind::LineOpened, "/kinetrel/line/opened"},
    WholeName{TopicKind::LineSettings, "/kinetrel/line/settings"},
    WholeName{TopicKind::LineLost, "/kinetrel/line/lost"},
    WholeName{TopicKind::LineClosed, "/kinetrel/line/closed"},
    WholeName{TopicKind::CaptureLog, "/kinetrel/log"},
    WholeName{TopicKind::CaptureLost, "/kinetrel/lost"},
};
constexpr std::string_view kRoot = "/kinetrel/";
constexpr std::string_view kSensor = "sensor/";

// Takes "12/" from the front. 0: it does not begin so.
int TakeNumber(std::string_view& text) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const auto digits = static_cast<std::size_t>(end - text.data());
  if (error != std::errc{} || digits >= text.size() || *end != '/' || number < 0) return 0;
  text.remove_prefix(digits + 1);
  return number;
}

// How many bytes the character at the start of `text` has in UTF-8; 0: it is not UTF-8.
std::size_t CharacterSize(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  const std::size_t size = first < 0x80                    ? 1
                           : first >= 0xC2 && first < 0xE0 ? 2
                           : first >= 0xE0 && first < 0xF0 ? 3
                           : first >= 0xF0 && first < 0xF5 ? 4
                                                           : 0;
  if (size == 0 || size > text.size()) return 0;
  for (const char each : text.substr(1, size - 1)) {
    if ((static_cast<unsigned char>(each) & 0xC0U) != 0x80U) return 0;
  }
  if (size < 3) return size;
  // Longer forms of shorter characters, halves of pairs, and numbers past the last character.
  const auto second = static_cast<unsigned char>(text[1]);
  const bool wrong = (first == 0xE0 && second < 0xA0) || (first == 0xED && second >= 0xA0) ||
                     (first == 0xF0 && second < 0x90) || (first == 0xF4 && second >= 0x90);
  return wrong ? 0 : size;
}

}  // namespace

std::string TopicName(const Topic& topic) {
  for (const WholeName& row : kWholeNames) {
    if (row.kind == topic.kind) return std::string(row.name);
  }
  for (const Row& row : kRows) {
    if (row.kind != topic.kind) continue;
    std::string name = std::string(kRoot) + std::to_string(topic.slot) + "/";
    if (row.ofSensor) name += std::string(kSensor) + std::to_string(topic.sensor) + "/";
    return name + std::string(row.name);
  }
  return {};
}

Topic ParseTopic(std::string_view name) {
  for (const WholeName& row : kWholeNames) {
    if (row.name == name) return {.kind = row.kind};
  }
  if (!name.starts_with(kRoot)) return {};
  name.remove_prefix(kRoot.size());
  Topic topic;
  topic.slot = TakeNumber(name);
  const bool ofSensor = name.starts_with(kSensor);
  if (ofSensor) {
    name.remove_prefix(kSensor.size());
    topic.sensor = TakeNumber(name);
  }
  if (topic.slot == 0 || (ofSensor && topic.sensor == 0)) return {};
  for (const Row& row : kRows) {
    if (row.name == name && row.ofSensor == ofSensor) {
      topic.kind = row.kind;
      return topic;
    }
  }
  return {};
}

std::string JsonText(std::string_view text) {
  std::string json = "\"";
  while (!text.empty()) {
    const std::size_t size = CharacterSize(text);
    const auto first = static_cast<unsigned char>(text.front());
    if (size == 0) {
      json += '?';
    } else if (first < 0x20) {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\u%04x", unsigned{first});
      json += escape.data();
    } else {
      if (first == '"' || first == '\\') json += '\\';
      json += text.substr(0, size);
    }
    text.remove_prefix(size == 0 ? 1 : size);
  }
  return json + '"';
}

}  // namespace kinetrel::mcap

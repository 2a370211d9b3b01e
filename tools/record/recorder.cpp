#include "record/recorder.h"

namespace kinetrel::record {

using mcap::JsonText;
using mcap::TopicKind;

Status Recorder::Write(const Item& item) {
  const auto utc = [&] { return writer_.Utc(item.slot, item.timeNs); };
  switch (item.kind) {
    case Item::Kind::Run:
      return writer_.WriteRun(item.slot, *item.run);
    case Item::Kind::Record:
      ++records_;
      return writer_.WriteRecord(item.slot, item.record, &item.devicePose);
    case Item::Kind::State:
      return writer_.WriteJson({.kind = TopicKind::State, .slot = item.slot}, utc(),
                               "{\"state\":" + JsonText(kinetrel_state_text(item.state)) +
                                   ",\"text\":" + JsonText(item.text) + "}");
    case Item::Kind::Log:
      return writer_.WriteJson(
          {.kind = TopicKind::Log, .slot = item.slot}, utc(),
          "{\"code\":" + std::to_string(item.code) + ",\"text\":" + JsonText(item.text) + "}");
  }
  return {};
}

Status Recorder::WriteMarker(std::string_view text) {
  return writer_.WriteJson({.kind = TopicKind::Marker}, mcap::UtcNow(),
                           "{\"text\":" + JsonText(text) + "}");
}

}  // namespace kinetrel::record

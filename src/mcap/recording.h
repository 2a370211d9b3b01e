// What a recording of kinetrel-record and a capture of kinetrel hold: the channels, and the
// messages that are not poses.
//
//   /kinetrel/1/sensor/2/pose         PoseStamped: the pose that the tracker published on slot 1
//                                     for sensor 2. What was not valid is NaN.
//   /kinetrel/1/sensor/2/device_pose  PoseStamped: the device's own pose, when filters changed it
//   /kinetrel/1/sensor/2/buttons      JSON {"buttons": 1, "known": 3}: with every change
//   /kinetrel/1/state                 JSON {"state": "silent", "text": "..."}: with every change
//   /kinetrel/1/log                   JSON {"code": -1, "text": "..."}: lines of the status log
//   /kinetrel/markers                 JSON {"text": "..."}: the operator's
//
// Of a capture:
//
//   /kinetrel/line/received           the bytes that one read of the line brought. Before the
//                                     message's time of publication none of them was there.
//   /kinetrel/line/sent               the bytes of one write
//   /kinetrel/line/opened             JSON {"text": "COM1"}: the name of the port
//   /kinetrel/line/settings           JSON {"text": "115200 8N1 RTS 1 DTR 0"}
//   /kinetrel/line/lost               JSON {}: the far end hung up or was unplugged
//   /kinetrel/line/closed             JSON {}
//   /kinetrel/log                     JSON {"code": -1, "text": "..."}: lines of the status log
//   /kinetrel/lost                    JSON {"pieces": 12}: of the capture so far that did not fit
//
// Positions are in metres in the tracker's own frame. The stamp of a pose is the time of its
// sample; the message's times are those of its publication, and its sequence number is that of the
// device's frame. One pair of clocks, taken when a tracker is first seen, turns all its times into
// UTC, so that their differences are exact.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kinetrel::mcap {

inline constexpr const char* kMetadataName = "kinetrel";

enum class TopicKind {
  Other,
  Pose,
  DevicePose,
  Buttons,
  State,
  Log,
  Marker,
  LineReceived,
  LineSent,
  LineOpened,
  LineSettings,
  LineLost,
  LineClosed,
  CaptureLog,
  CaptureLost,
};

struct Topic {
  TopicKind kind = TopicKind::Other;
  int slot = 0;    // from 1; 0: none
  int sensor = 0;  // from 1; 0: none
};

std::string TopicName(const Topic& topic);
Topic ParseTopic(std::string_view name);

// `text` as a JSON string with its quotes. Bytes that are not UTF-8 become question marks.
std::string JsonText(std::string_view text);

}  // namespace kinetrel::mcap

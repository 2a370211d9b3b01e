// What kinetrel-view tells in JSON: docs/view.md describes every member. Pure: no clock, no stream.
//
// Every text is valid UTF-8 and valid JSON, whatever a tracker's names and sentences hold.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "view/tracker_snapshot.h"

namespace kinetrel::view {

// The answers.
std::string TrackersJson(const std::vector<TrackerSnapshot>& trackers, const Moment& moment);
std::string TrackerJson(const TrackerSnapshot& tracker, const Moment& moment);
std::string ErrorJson(const std::string& sentence);

// The messages of the stream.
std::string StatusMessage(const TrackerSnapshot& tracker, const Moment& moment);
std::string FrameMessage(const TrackerSnapshot& tracker, const Moment& moment);
// after  number of the last line that is left out; 0: all lines.
std::string LogMessage(const TrackerSnapshot& tracker, std::uint64_t after);

// `text` in double quotes, valid in JSON and in the Prometheus text format.
std::string Quoted(const std::string& text);

}  // namespace kinetrel::view

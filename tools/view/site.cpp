#include "view/site.h"

#include <kinetrel/stream.h>

#include <charconv>

#include "view/page_files.h"
#include "view/tracker_snapshot.h"
#include "view/view_json.h"

namespace kinetrel::view {
namespace {

constexpr const char* kJson = "application/json";
constexpr std::string_view kTrackers = "/api/trackers";

std::vector<TrackerSnapshot> AllTrackers() {
  std::vector<TrackerSnapshot> trackers;
  for (int slot = 1; slot <= kinetrel_stream_slots; ++slot) {
    TrackerSnapshot tracker = ReadTracker(slot);
    if (tracker.result != kinetrel_stream_none) trackers.push_back(std::move(tracker));
  }
  return trackers;
}

Answer OneTracker(int slot) {
  const TrackerSnapshot tracker = ReadTracker(slot);
  const std::string number = std::to_string(slot);
  if (tracker.result == kinetrel_stream_none) {
    return ErrorAnswer(404, "No tracker publishes on slot " + number + ".");
  }
  if (tracker.result != kinetrel_stream_ok) {
    return ErrorAnswer(503, "Slot " + number + " cannot be read: " +
                                kinetrel_stream_result_text(tracker.result) + ".");
  }
  return {200, kJson, TrackerJson(tracker, MomentNow())};
}

Answer Metrics(const ServerFigures& server) {
  std::vector<TrackerFigures> figures;
  for (int slot = 1; slot <= kinetrel_stream_slots; ++slot) {
    TrackerStream stream(slot);
    if (stream.result() != kinetrel_stream_ok) continue;
    TrackerFigures& tracker = figures.emplace_back();
    tracker.tracker.slot = slot;
    stream.ReadRun(tracker.tracker);
    stream.ReadRecords(tracker.tracker);
    tracker.latencies = stream.ReadLatencies();
  }
  return {200, "text/plain; version=0.0.4; charset=utf-8",
          MetricsText(figures, server, kinetrel_now_ns())};
}

std::optional<Answer> FileOfPage(std::string_view path) {
  if (path == "/") path = "/index.html";
  for (const PageFile& file : PageFiles()) {
    if (path == file.path)
      return Answer{200, file.type, {file.content.begin(), file.content.end()}};
  }
  return {};
}

// "3" of "/api/trackers/3"; none: not a number.
std::optional<int> SlotOf(std::string_view path) {
  if (!path.starts_with(kTrackers) || !path.substr(kTrackers.size()).starts_with('/')) return {};
  const std::string_view number = path.substr(kTrackers.size() + 1);
  unsigned slot = 0;
  const auto [end, bad] = std::from_chars(number.data(), number.data() + number.size(), slot);
  if (bad != std::errc() || end != number.data() + number.size()) return {};
  return slot <= 1000 ? static_cast<int>(slot) : 0;
}

}  // namespace

Answer ErrorAnswer(unsigned status, const std::string& sentence) {
  return {status, kJson, ErrorJson(sentence)};
}

Answer AnswerTo(std::string_view path, const ServerFigures& server) {
  if (const std::optional<Answer> file = FileOfPage(path)) return *file;
  if (path == kTrackers) return {200, kJson, TrackersJson(AllTrackers(), MomentNow())};
  if (path == "/metrics") return Metrics(server);
  const std::optional<int> stream = SlotOfStream(path);
  const std::optional<int> slot = stream ? stream : SlotOf(path);
  if (!slot) return ErrorAnswer(404, "There is no such page.");
  if (*slot < 1 || *slot > kinetrel_stream_slots) {
    return ErrorAnswer(404, "There is no such slot: they count from 1 to 16.");
  }
  if (stream) return ErrorAnswer(426, "This is a WebSocket.");
  return OneTracker(*slot);
}

std::optional<int> SlotOfStream(std::string_view path) {
  constexpr std::string_view kEnd = "/frames";
  if (!path.ends_with(kEnd)) return {};
  return SlotOf(path.substr(0, path.size() - kEnd.size()));
}

}  // namespace kinetrel::view

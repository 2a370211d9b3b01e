// kinetrel-record: records poses, converts recordings, plays them.
#include <atomic>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/tracker_engine.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/signals.h"
#include "program/program.h"
#include "record/exports.h"
#include "record/markers.h"
#include "record/played_device.h"
#include "record/record_options.h"
#include "record/recorder.h"
#include "report/output_file.h"
#include "report/progress_line.h"

namespace kinetrel::record {
namespace {

// A signal handler may touch nothing else.
std::atomic<int> stopRequest{0};  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr Milliseconds kWriteEvery{50};

[[gnu::format(printf, 2, 3)]] int Complain(int exitCode, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::fputs("kinetrel-record: ", stderr);
  std::vfprintf(stderr, format, arguments);
  std::fputc('\n', stderr);
  va_end(arguments);
  return exitCode;
}

int Unusable(const std::string& file, const std::string& complaint) {
  return Complain(kFailed, "%s: %s", file.c_str(), complaint.c_str());
}

// Tells when a tracker comes, falls silent or goes. The sentence of a state may change each second.
class StateLines {
 public:
  void Take(const Item& item, report::ProgressLine& console) {
    kinetrel_state& known = known_[item.slot];
    newest_ = item.text;
    if (item.state == known && item.state != kinetrel_state_unknown) return;
    known = item.state;
    const bool isOpen = item.state != kinetrel_state_unknown;
    console.Tell("slot " + std::to_string(item.slot) + ": " +
                 (isOpen ? kinetrel_state_text(item.state) + std::string(": ") : "") + item.text);
  }
  const std::string& newest() const { return newest_; }

 private:
  std::map<int, kinetrel_state> known_;
  std::string newest_;
};

int Record(const RecordOptions& options) {
  if (const std::string why = report::WhyNotReplaced(options.file, options.force); !why.empty()) {
    return Complain(kFailed, "%s", why.c_str());
  }
  Markers markers(options.until);
  if (options.markerPort != 0) {
    const Status listening = markers.Listen(options.markerPort, options.markersFromNetwork);
    if (!listening.Ok()) {
      return Complain(kFailed, "port %u: %s", unsigned{options.markerPort},
                      Describe(listening).c_str());
    }
  }
  Recorder recorder;
  if (const Status opened = recorder.Open(options.file); !opened.Ok()) {
    return Unusable(options.file, Describe(opened));
  }
  SlotReader reader(options.slots);
  if (!reader.Start()) return Complain(kFailed, "the system starts no thread");
  std::printf("recording slot%s", options.slots.size() > 1 ? "s" : "");
  for (const int slot : options.slots) std::printf(" %d", slot);
  std::printf(" into %s; Ctrl-C ends it\n", options.file.c_str());
  std::fflush(stdout);

  report::ProgressLine progress;
  StateLines states;
  std::vector<Item> items;
  std::vector<std::string> texts;
  std::int64_t beganNs = 0;  // with the first pose
  Status written;
  const auto seconds = [&] {
    return beganNs == 0 ? 0 : static_cast<double>(kinetrel_now_ns() - beganNs) * 1e-9;
  };
  const auto show = [&](bool last) {
    if (!last && !progress.IsDue(seconds())) return;
    char text[120];
    std::snprintf(text, sizeof text, "%.0f s, %" PRIu64 " poses, %" PRIu64 " lost, %.1f MB",
                  seconds(), recorder.records(), reader.lost(),
                  static_cast<double>(recorder.bytes()) * 1e-6);
    progress.Show(seconds(), text, last);
  };
  for (bool goesOn = true; goesOn && written.Ok();) {
    goesOn = stopRequest == 0 && (options.seconds == 0 || seconds() < options.seconds);
    SleepFor(kWriteEvery);
    reader.Take(items);
    for (std::size_t i = 0; i < items.size() && written.Ok(); ++i) {
      if (beganNs == 0 && items[i].kind == Item::Kind::Record) beganNs = kinetrel_now_ns();
      if (items[i].kind == Item::Kind::State) states.Take(items[i], progress);
      written = recorder.Write(items[i]);
    }
    goesOn = markers.Take(texts) && goesOn;
    for (std::size_t i = 0; i < texts.size() && written.Ok(); ++i) {
      written = recorder.WriteMarker(texts[i]);
    }
    show(false);
  }
  const Status closed = recorder.Close();
  show(true);
  if (written.Ok()) written = closed;
  if (!written.Ok()) {
    return Complain(kFailed, "%s: %s. What was written before stays readable.",
                    options.file.c_str(), Describe(written).c_str());
  }
  if (beganNs != 0) return kDone;
  return Complain(kFailed, "no pose came, so %s holds none: %s", options.file.c_str(),
                  states.newest().c_str());
}

int Convert(const RecordOptions& options) {
  RecordedFrames frames;
  const std::string complaint =
      frames.Open(options.file, options.slots.empty() ? 0 : options.slots.front());
  if (!complaint.empty()) return Unusable(options.file, complaint);
  std::filesystem::path target = options.output;
  if (target.empty()) {
    target = options.file;
    target.replace_extension(options.format == Export::Csv   ? ".csv"
                             : options.format == Export::Trc ? ".trc"
                                                             : "");
  }
  const auto files = ExportFiles(options.format, target);
  for (const std::filesystem::path& each : files) {
    std::error_code unknown;
    if (std::filesystem::equivalent(each, options.file, unknown)) {
      return Complain(kFailed, "--output names the recording itself");
    }
    if (const std::string why = report::WhyNotReplaced(each, options.force); !why.empty()) {
      return Complain(kFailed, "%s", why.c_str());
    }
  }
  const ExportResult result = WriteExport(options.format, frames, target);
  if (!result.complaint.empty()) return Complain(kFailed, "%s", result.complaint.c_str());
  // A table on standard output stays a table.
  std::fprintf(stderr, "%s: %" PRIu64 " frames of slot %d\n",
               (options.format == Export::Tsv ? files[1] : target).string().c_str(), result.frames,
               frames.slot());
  for (const int other : frames.otherSlots()) {
    if (!options.slots.empty()) break;
    std::fprintf(stderr, "slot %d is in the recording too: convert it with --slot %d\n", other,
                 other);
  }
  if (!frames.whole()) {
    Complain(kDone, "%s was cut; the table ends where it ends.", options.file.c_str());
  }
  if (frames.damaged() > 0) {
    Complain(kDone, "%s: %" PRIu64 " damaged parts were left out.", options.file.c_str(),
             frames.damaged());
  }
  return kDone;
}

// The device that publishes on a slot now; empty: none does.
std::string PublisherOn(int slot) {
  kinetrel_stream stream{};
  if (kinetrel_stream_open(&stream, slot, 0) != kinetrel_stream_ok) return "";
  const kinetrel_state state = kinetrel_stream_state(&stream, nullptr);
  kinetrel_run run{};
  const bool known = kinetrel_stream_run(&stream, &run) == kinetrel_stream_ok;
  kinetrel_stream_close(&stream);
  if (state == kinetrel_state_unknown || state >= kinetrel_state_stopped) return "";
  return known && run.device_name[0] != '\0' ? run.device_name : "another program";
}

int Play(const RecordOptions& options) {
  const auto playback = std::make_shared<Playback>();
  const std::string complaint = playback->frames.Open(options.file, options.fromSlot);
  if (!complaint.empty()) return Unusable(options.file, complaint);
  playback->pace = {.speed = options.speed, .loop = options.loop};
  StartConfig config;
  config.shmDevice = options.slots.empty() ? 0 : options.slots.front() - 1;
  const int slot = config.shmDevice + 1;
  if (const std::string publisher = PublisherOn(slot); !publisher.empty()) {
    return Complain(kFailed, "slot %d is taken by %s; --slot chooses another", slot,
                    publisher.c_str());
  }
  config.units = 3;
  config.componentMask = 7;
  config.streaming = 0;  // asked for each frame, and so without a rest between two
  config.sensorMask = 0;
  for (const int sensor : playback->frames.sensors()) config.sensorMask |= StationBit(sensor - 1);

  TrackerEngine engine({.device = [&](int) { return std::make_unique<PlayedDevice>(playback); },
                        .joystick = [](int) { return nullptr; }});
  engine.Configure(config);
  if (engine.Open(kKeyboardStatus, 0, false) != OpenResult::Opened || !engine.StartSampling()) {
    return Complain(kFailed, "slot %d cannot be published", slot);
  }
  while (stopRequest == 0 && !playback->ended) SleepFor(Milliseconds(100));
  engine.StopSampling(true);
  engine.Close();
  std::printf("%" PRIu64 " frames played\n", playback->played.load());
  return kDone;
}

int Run(const RecordCommand& command) {
  if (command.ending) return Print(*command.ending, "kinetrel-record");
  CatchStopSignals(stopRequest);
  const RecordOptions& options = command.options;
  if (options.task == Task::Convert) return Convert(options);
  if (options.task == Task::Play) return Play(options);
  return Record(options);
}

}  // namespace
}  // namespace kinetrel::record

int main(int count, char** arguments) {
  using namespace kinetrel::record;
  return kinetrel::RunProgram("kinetrel-record",
                              [&] { return Run(ParseRecordCommand(count, arguments)); });
}

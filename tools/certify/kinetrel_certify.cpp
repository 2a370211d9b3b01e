// kinetrel-certify: measures what a tracker delivers, and writes a report for a paper.
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>

#include "certify/certificate.h"
#include "certify/certify_options.h"
#include "certify/tracker_reader.h"
#include "platform/signals.h"
#include "program/program.h"
#include "report/output_file.h"
#include "report/progress_line.h"

namespace kinetrel::certify {
namespace {

// A signal handler may touch nothing else.
std::atomic<int> stopRequest{0};  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kLookEveryMs = 100;

int Complain(const std::string& text) {
  std::fprintf(stderr, "kinetrel-certify: %s\n", text.c_str());
  return kFailed;
}

std::string UtcText(std::time_t when, const char* format) {
  char text[40];
  std::strftime(text, sizeof text, format, std::gmtime(&when));
  return text;
}

// A path for each file that the user did not name, by slot and time.
void NameFiles(CertifyOptions& options) {
  const std::filesystem::path folder = options.folder;
  const std::string name = "kinetrel-slot" + std::to_string(options.slot) +
                           UtcText(std::time(nullptr), "-%Y%m%d-%H%M%S");
  if (options.html.empty()) options.html = (folder / (name + ".html")).string();
  if (options.json.empty()) options.json = (folder / (name + ".json")).string();
}

// Before the tracker is watched: empty, or why the report could not be written.
std::string WhyNoReport(const CertifyOptions& options) {
  if (options.html == options.json) return "--html and --json name the same file";
  for (const std::string& path : {options.html, options.json}) {
    if (std::string why = report::WhyNotReplaced(path, options.force); !why.empty()) return why;
    if (std::string why = report::WhyNotWritable(path); !why.empty()) return why;
  }
  return "";
}

std::string ProgressText(const Measurement& measured, const CertifyOptions& options,
                         const TrackerReader& reader, double seconds) {
  char text[400];
  if (measured.records() == 0) {
    std::snprintf(text, sizeof text, "waiting for a pose on slot %d: %s", options.slot,
                  reader.sentence().c_str());
  } else if (measured.pace().frames() == 0) {  // too few to tell their pace
    std::snprintf(text, sizeof text, "%.0f of %.0f s, %" PRIu64 " poses so far", seconds,
                  options.minutes * 60, measured.records());
  } else {
    std::snprintf(text, sizeof text,
                  "%.0f of %.0f s, %" PRIu64 " frames, %.2f Hz, %" PRIu64 " missing%s%s", seconds,
                  options.minutes * 60, measured.pace().frames(), measured.pace().DeliveredHertz(),
                  measured.pace().Missing(), reader.delivers() ? "" : "; ",
                  reader.delivers() ? "" : reader.sentence().c_str());
  }
  return text;
}

const char* PriorityWords(TrackerReader::Priority priority) {
  switch (priority) {
    case TrackerReader::Priority::RealTime:
      return "real-time priority: the status log tells of no refusal";
    case TrackerReader::Priority::Ordinary:
      return "ordinary priority: the system refused real-time priority";
    case TrackerReader::Priority::Unknown:
      break;
  }
  return "unknown: the status log does not tell";
}

// Watches the tracker; why it ended, as a sentence.
std::string Watch(const CertifyOptions& options, Measurement& measured, TrackerReader& reader) {
  report::ProgressLine progress;
  const std::int64_t start = kinetrel_now_ns();
  std::string ending;
  while (ending.empty()) {
    reader.Read(kLookEveryMs);
    const std::int64_t now = kinetrel_now_ns();
    const double seconds = measured.watchedSeconds(now);
    const double since = static_cast<double>(now - start) * 1e-9;
    if (stopRequest != 0) {
      ending = "The operator ended it early.";
    } else if (seconds >= options.minutes * 60) {
      ending = reader.delivers() ? "The time was up."
                                 : "The time was up, without a tracker: " + reader.sentence();
    } else if (measured.records() == 0 && since >= options.wait) {
      ending = "No pose came in time.";
    }
    if (!ending.empty() || progress.IsDue(since)) {
      progress.Show(since, ProgressText(measured, options, reader, seconds), !ending.empty());
    }
  }
  reader.ReadRun();
  measured.Finish();
  return ending;
}

int Certify(CertifyOptions options) {
  NameFiles(options);
  if (const std::string why = WhyNoReport(options); !why.empty()) return Complain(why);
  std::printf("watching slot %d for %g minutes; Ctrl-C ends it early\n", options.slot,
              options.minutes);
  std::fflush(stdout);
  Circumstances about;
  about.slot = options.slot;
  about.asked = options.minutes * 60;
  about.version = KINETREL_VERSION;
  about.machine = ReadSystemFacts();
  const std::time_t start = std::time(nullptr);
  const std::int64_t startNs = kinetrel_now_ns();
  Measurement measured;
  TrackerReader reader(options.slot, measured);
  about.ending = Watch(options, measured, reader);

  about.watched = measured.watchedSeconds(kinetrel_now_ns());
  const std::int64_t waited = measured.records() > 0 ? measured.beganNs() - startNs : 0;
  about.began =
      UtcText(start + static_cast<std::time_t>(waited / 1'000'000'000), "%Y-%m-%d %H:%M:%S UTC");
  about.trackerState = reader.sentence();
  about.priority = PriorityWords(reader.priority());
  std::fputs(Summary(measured).c_str(), stdout);
  std::fflush(stdout);
  const std::string figures = CertificateJson(measured, about);
  const std::string html = report::WriteFile(options.html, CertificatePage(measured, about));
  const std::string json = report::WriteFile(options.json, figures);
  if (html.empty()) std::printf("the page is %s\n", options.html.c_str());
  // An hour of watching is not lost because the disk filled meanwhile.
  if (json.empty()) {
    std::printf("the figures are in %s\n", options.json.c_str());
  } else {
    std::fputs(figures.c_str(), stdout);
  }
  std::fflush(stdout);
  if (!html.empty()) Complain(html);
  if (!json.empty()) Complain(json);
  if (!html.empty() || !json.empty()) return kFailed;
  if (measured.records() == 0) return Complain(about.ending + " " + about.trackerState);
  return kDone;
}

}  // namespace
}  // namespace kinetrel::certify

int main(int count, char** arguments) {
  using namespace kinetrel::certify;
  return kinetrel::RunProgram("kinetrel-certify", [&] {
    const CertifyCommand command = ParseCertifyCommand(count, arguments);
    if (command.ending) return Print(*command.ending, "kinetrel-certify");
    kinetrel::CatchStopSignals(stopRequest);
    return Certify(command.options);
  });
}

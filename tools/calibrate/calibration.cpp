#include "calibrate/calibration.h"

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "calibrate/jobs.h"
#include "calibrate/report_page.h"
#include "report/output_file.h"

namespace kinetrel::calibrate {
namespace {

constexpr int kWritten = 0;
constexpr int kNotGood = 1;
constexpr int kBadArguments = 2;
constexpr double kStill = 0.005;  // m: a sensor that spreads further was moved while measured

int Fail(const std::string& why, int code = kNotGood) {
  std::fprintf(stderr, "kinetrel-calibrate: %s\n", why.c_str());
  return code;
}

// ---- Files -------------------------------------------------------------------------------------

constexpr const char* kEndings[] = {".csv", ".filters", ".html", ".toml"};

// Before anything is measured: empty, or why the files could not be written.
std::string WhyNotWritable(const CalibrateOptions& options) {
  // The filter's text names the table.
  const auto inFolder = [](const std::string& path) {
    return std::filesystem::absolute(path).generic_string();
  };
  if (options.job == Job::Map &&
      (inFolder(options.output) + inFolder(options.points)).find(',') != std::string::npos) {
    return "the paths of --points and --output must have no comma, also in their folders' names";
  }
  for (const char* const ending : kEndings) {
    const std::string path = options.output + ending;
    if (std::filesystem::exists(path) && !options.force) {
      return path + " exists; --force replaces it, --output chooses another name";
    }
  }
  return report::WhyNotWritable(options.output + ".html");
}

// A filter's text has no control characters; its path may have the others.
std::string TomlText(const std::string& text) {
  std::string quoted = "\"";
  for (const char each : text) {
    if (each == '"' || each == '\\') quoted += '\\';
    quoted += each;
  }
  return quoted + '"';
}

std::string TableText(const PosePairTable& table) {
  std::ostringstream text;
  WritePosePairs(text, table);
  return text.str();
}

// ---- Questions ---------------------------------------------------------------------------------

enum class Answer { Go, Again, End };

Answer Ask(const std::string& question) {
  std::fprintf(stderr, "%s\n", question.c_str());
  std::string line;
  if (!std::getline(std::cin, line)) return Answer::End;
  if (line == "r") return Answer::Again;
  return line == "q" ? Answer::End : Answer::Go;
}

std::string PointText(const PosePairTable& table, std::size_t at) {
  const PosePair& pair = table.pairs[at];
  char text[256];
  std::snprintf(text, sizeof text, "Point %d of %d%s%.60s: %.3f / %.3f / %.3f m",
                static_cast<int>(at) + 1, static_cast<int>(table.pairs.size()),
                pair.name.empty() ? "" : ", ", pair.name.c_str(), pair.truth[0], pair.truth[1],
                pair.truth[2]);
  return text;
}

// Measures every point of the table. Returns empty, or why it was given up; the table then holds
// the points that were measured.
std::string MeasurePoints(const CalibrateOptions& options, SensorReader& reader,
                          PosePairTable& table) {
  std::string complaint;
  std::size_t at = 0;
  while (at < table.pairs.size() && complaint.empty()) {
    const Answer answer =
        Ask(PointText(table, at) + ". Hold the sensor still there and press Enter.");
    if (answer == Answer::End) complaint = "ended at point " + std::to_string(at + 1);
    if (answer == Answer::Again && at > 0) --at;
    if (answer != Answer::Go) continue;
    std::vector<SensorPose> poses;
    complaint = reader.Read(options.seconds, poses);
    if (!complaint.empty()) break;
    const Rest rest = RestOf(poses);
    if (rest.spread > kStill) {
      std::fprintf(stderr, "The sensor moved by %.1f mm. Once more, please.\n", rest.spread * 1e3);
      continue;
    }
    std::fprintf(stderr, "Measured %.4f / %.4f / %.4f m from %d poses, spread %.2f mm.\n",
                 rest.pose.position[0], rest.pose.position[1], rest.pose.position[2], rest.poses,
                 rest.spread * 1e3);
    table.pairs[at].measured = rest.pose.position;
    table.pairs[at].measuredOrientation = rest.pose.orientation;
    ++at;
  }
  table.hasMeasured = true;
  table.pairs.resize(at);
  return complaint;
}

// ---- Jobs --------------------------------------------------------------------------------------

std::string Now() {
  const std::time_t now = std::time(nullptr);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  return text;
}

int WriteFinding(const CalibrateOptions& options, const Finding& finding,
                 const std::string& subtitle) {
  std::printf("%s: %s. %s\n", finding.title.c_str(), GradeWord(finding.grade),
              finding.verdict.c_str());
  for (const auto& [what, value] : finding.figures) {
    std::printf("  %s: %s\n", what.c_str(), value.c_str());
  }
  std::string complaint =
      report::WriteFile(options.output + ".html", ReportPage(finding, subtitle));
  if (!complaint.empty()) return Fail(complaint);
  std::printf("The errors are shown in %s.html.\n", options.output.c_str());
  if (finding.grade == Grade::Bad) return Fail("no filter was written");
  const std::string sensors =
      finding.sensor == 0 ? "" : ",sensors=" + std::to_string(finding.sensor);
  const std::string filter = finding.filter + sensors;
  const std::string comment =
      "# " + finding.title + ", " + subtitle + ": " + GradeWord(finding.grade) + "\n";
  const std::string config = options.output + ".toml";
  const std::string filters = options.output + ".filters";
  complaint = report::WriteFile(config, comment + "filter = [" + TomlText(filter) + "]\n");
  if (complaint.empty()) complaint = report::WriteFile(filters, comment + filter + "\n");
  if (!complaint.empty()) return Fail(complaint);
  std::printf("Use it: kinetrel --config %s, or with other filters: --filter @%s\n", config.c_str(),
              filters.c_str());
  return kWritten;
}

int CalibrateTip(const CalibrateOptions& options) {
  SensorReader reader(options.slot, options.sensor - 1, options.which);
  char question[200];
  std::snprintf(
      question, sizeof question,
      "Put the tip into a small hollow and press Enter. Then tilt the tool to all sides and "
      "twist it for %g seconds, without moving the tip.",
      options.seconds);
  if (Ask(question) != Answer::Go) return Fail("ended");
  std::vector<SensorPose> poses;
  const std::string complaint = reader.Read(options.seconds, poses);
  if (!complaint.empty()) return Fail(complaint);
  return WriteFinding(
      options, FindTip(poses, options.sensor),
      reader.deviceName() + ", sensor " + std::to_string(options.sensor) + ", " + Now());
}

int CalibratePoints(const CalibrateOptions& options) {
  PosePairTable table;
  std::string error;
  if (!ReadPosePairFile(options.points, PoseColumns::TrueAtLeast, table, error)) {
    return Fail(options.points + ": " + error + ".", kBadArguments);
  }
  if (table.pairs.empty()) return Fail(options.points + " has no points.", kBadArguments);
  std::string subtitle = options.points + ", " + Now();
  std::string file = std::filesystem::absolute(options.points).generic_string();
  if (!table.hasMeasured) {
    SensorReader reader(options.slot, options.sensor - 1, options.which);
    const std::string complaint = MeasurePoints(options, reader, table);
    const std::string csv = options.output + ".csv";
    file = std::filesystem::absolute(csv).generic_string();
    error = table.pairs.empty() ? "" : report::WriteFile(csv, TableText(table));
    if (!complaint.empty()) {
      return Fail(complaint + (table.pairs.empty() || !error.empty()
                                   ? ""
                                   : ". The points so far are in " + csv));
    }
    if (!error.empty()) return Fail(error);
    subtitle = reader.deviceName() + ", sensor " + std::to_string(options.sensor) + ", " + Now();
  }
  return WriteFinding(options,
                      options.job == Job::Room
                          ? FindRoom(table)
                          : FindMap(table, options.model, options.degree, file),
                      subtitle);
}

}  // namespace

int Calibrate(const CalibrateOptions& options) {
  const std::string obstacle = WhyNotWritable(options);
  if (!obstacle.empty()) return Fail(obstacle, kBadArguments);
  return options.job == Job::Tip ? CalibrateTip(options) : CalibratePoints(options);
}

}  // namespace kinetrel::calibrate

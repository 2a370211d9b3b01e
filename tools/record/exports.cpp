#include "record/exports.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "devices/pose.h"
#include "report/output_file.h"

namespace kinetrel::record {
namespace {

double SecondsBetween(std::uint64_t from, std::uint64_t to) {
  return static_cast<double>(static_cast<std::int64_t>(to - from)) * 1e-9;
}

std::string Number(double value, int decimals, std::string_view none = "") {
  if (!std::isfinite(value)) return std::string(none);
  std::array<char, 64> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value,
                                 std::chars_format::fixed, decimals);
  return {text.data(), end.ptr};
}

// Control characters would end a row, or steer the terminal that shows the table.
std::string OneLine(std::string text) {
  for (char& each : text) {
    if (static_cast<unsigned char>(each) < ' ' || each == 0x7F) each = ' ';
  }
  return text;
}

// Quotes what would end the field, and keeps a table program from taking it for a formula.
std::string CsvText(const std::string& text) {
  std::string quoted = "\"";
  if (!text.empty() && std::string_view("=+-@").find(text.front()) != std::string_view::npos)
    quoted += '\'';
  for (const char each : text) {
    if (each == '"') quoted += '"';
    quoted += each;
  }
  return quoted + '"';
}

// The angles as a tracker gives them: azimuth, elevation, roll in degrees.
std::array<double, 3> Degrees(const std::array<double, 4>& orientation) {
  Quaternion q;
  for (std::size_t i = 0; i < 4; ++i) q[i] = static_cast<float>(orientation[i]);
  const std::array<float, 3> radians = QuaternionToEuler(q.data());
  return {radians[0] * kDegreesPerRadian, radians[1] * kDegreesPerRadian,
          radians[2] * kDegreesPerRadian};
}

// Uses the markers before the frame that follows them. Returns the number of frames.
std::uint64_t ForEachFrame(RecordedFrames& frames,
                           const std::function<void(const RecordedFrame&)>& use,
                           const std::function<void(const RecordedMarker&)>& mark = {}) {
  const auto markAll = [&](const std::vector<RecordedMarker>& markers) {
    if (mark) std::ranges::for_each(markers, mark);
  };
  frames.Rewind();
  std::uint64_t count = 0;
  for (RecordedFrame frame; frames.Next(frame); ++count) {
    markAll(frame.markers);
    use(frame);
  }
  markAll(frames.lateMarkers());
  return count;
}

const RecordedPose* PoseOf(const RecordedFrame& frame, int sensor) {
  for (const RecordedPose& pose : frame.poses) {
    if (pose.sensor == sensor) return &pose;
  }
  return nullptr;
}

// What a table needs to know before its first row.
struct Extent {
  std::uint64_t begin = 0;
  std::uint64_t frames = 0;
  double rate = 0;  // Hz, the mean; 0 of fewer than two frames
  std::vector<RecordedMarker> markers;
};

Extent Measure(RecordedFrames& frames) {
  Extent extent;
  std::uint64_t end = 0;
  extent.frames = ForEachFrame(
      frames,
      [&](const RecordedFrame& frame) {
        if (extent.begin == 0) extent.begin = frame.utcNs;
        end = frame.utcNs;
      },
      [&](const RecordedMarker& marker) { extent.markers.push_back(marker); });
  const double seconds = SecondsBetween(extent.begin, end);
  if (seconds > 0) extent.rate = static_cast<double>(extent.frames - 1) / seconds;
  return extent;
}

using report::WholeFile;

ExportResult WriteCsv(RecordedFrames& frames, const std::filesystem::path& target) {
  WholeFile table(target);
  table.out() << "time_s,utc_ns,slot,sensor,x_m,y_m,z_m,qw,qx,qy,qz,azimuth_deg,elevation_deg,"
                 "roll_deg,buttons,marker\n";
  RecordedFrame first;
  frames.Rewind();
  frames.Next(first);
  const auto rowAt = [&](std::uint64_t utcNs) {
    return Number(SecondsBetween(first.utcNs, utcNs), 6) + ',' + std::to_string(utcNs) + ',' +
           std::to_string(frames.slot()) + ',';
  };
  const std::uint64_t count = ForEachFrame(
      frames,
      [&](const RecordedFrame& frame) {
        for (const RecordedPose& pose : frame.poses) {
          std::string row = rowAt(pose.sampleUtcNs) + std::to_string(pose.sensor);
          for (const double value : pose.position) row += ',' + Number(value, 6);
          for (const double value : pose.orientation) row += ',' + Number(value, 7);
          for (const double value : Degrees(pose.orientation)) row += ',' + Number(value, 4);
          row += ',';
          if (pose.buttons) row += std::to_string(*pose.buttons);
          table.out() << row << ",\n";
        }
      },
      [&](const RecordedMarker& marker) {
        table.out() << rowAt(marker.utcNs) << ",,,,,,,,,,,," << CsvText(OneLine(marker.text))
                    << '\n';
      });
  return {table.End(), count};
}

ExportResult WriteTrc(RecordedFrames& frames, const std::filesystem::path& target) {
  const Extent extent = Measure(frames);
  const std::string rate = Number(extent.rate, 2);
  const std::string count = std::to_string(extent.frames);
  WholeFile table(target);
  std::ofstream& out = table.out();
  out << "PathFileType\t4\t(X/Y/Z)\t" << target.filename().string() << '\n'
      << "DataRate\tCameraRate\tNumFrames\tNumMarkers\tUnits\tOrigDataRate\tOrigDataStartFrame\t"
         "OrigNumFrames\n"
      << rate << '\t' << rate << '\t' << count << '\t' << frames.sensors().size() << "\tmm\t"
      << rate << "\t1\t" << count << "\nFrame#\tTime";
  for (const int sensor : frames.sensors()) out << "\tSensor" << sensor << "\t\t";
  out << "\n\t";
  for (std::size_t i = 1; i <= frames.sensors().size(); ++i) {
    out << "\tX" << i << "\tY" << i << "\tZ" << i;
  }
  out << "\n\n";
  std::uint64_t number = 0;
  ForEachFrame(frames, [&](const RecordedFrame& frame) {
    out << ++number << '\t' << Number(SecondsBetween(extent.begin, frame.utcNs), 6);
    for (const int sensor : frames.sensors()) {
      const RecordedPose* pose = PoseOf(frame, sensor);
      for (std::size_t i = 0; i < 3; ++i) {
        out << '\t';
        if (pose != nullptr) out << Number(pose->position[i] * 1000, 4);
      }
    }
    out << '\n';
  });
  return {table.End(), number};
}

// The columns of one sensor in a BIDS table.
struct Column {
  const char* name;
  const char* component;
  const char* type;
  const char* unit;
};
constexpr std::array kColumns{
    Column{"POS_x", "x", "POS", "m"},
    Column{"POS_y", "y", "POS", "m"},
    Column{"POS_z", "z", "POS", "m"},
    Column{"ORNT_quat_w", "quat_w", "ORNT", "n/a"},
    Column{"ORNT_quat_x", "quat_x", "ORNT", "n/a"},
    Column{"ORNT_quat_y", "quat_y", "ORNT", "n/a"},
    Column{"ORNT_quat_z", "quat_z", "ORNT", "n/a"},
};

// A row for each frame. Its own time is in the first column, because no tracker is quite regular.
ExportResult WriteTsv(RecordedFrames& frames, const std::filesystem::path& target) {
  const std::vector<std::filesystem::path> files = ExportFiles(Export::Tsv, target);
  const Extent extent = Measure(frames);
  WholeFile channels(files[0]);
  channels.out() << "name\tcomponent\ttype\ttracked_point\tunits\tsampling_frequency\n"
                 << "latency\tn/a\tLATENCY\tn/a\ts\t" << Number(extent.rate, 3, "n/a") << '\n';
  for (const int sensor : frames.sensors()) {
    const std::string point = "sensor" + std::to_string(sensor);
    for (const Column& column : kColumns) {
      channels.out() << point << '_' << column.name << '\t' << column.component << '\t'
                     << column.type << '\t' << point << '\t' << column.unit << '\t'
                     << Number(extent.rate, 3, "n/a") << '\n';
    }
  }
  WholeFile rows(files[1]);
  ForEachFrame(frames, [&](const RecordedFrame& frame) {
    rows.out() << Number(SecondsBetween(extent.begin, frame.utcNs), 6);
    for (const int sensor : frames.sensors()) {
      const RecordedPose* pose = PoseOf(frame, sensor);
      for (std::size_t i = 0; i < kColumns.size(); ++i) {
        const double value = pose == nullptr ? std::nan("")
                             : i < 3         ? pose->position[i]
                                             : pose->orientation[i - 3];
        rows.out() << '\t' << Number(value, i < 3 ? 6 : 7, "n/a");
      }
    }
    rows.out() << '\n';
  });
  const std::size_t points = frames.sensors().size();
  WholeFile about(files[2]);
  about.out() << nlohmann::json{
                     {"TaskName", target.stem().string()},
                     {"SamplingFrequency", extent.rate},
                     {"SamplingFrequencyEffective", extent.rate},
                     {"TrackedPointsCount", points},
                     {"MotionChannelCount", points * kColumns.size() + 1},
                     {"POSChannelCount", points * 3},
                     {"ORNTChannelCount", points * 4},
                     {"LATENCYChannelCount", 1},
                     {"ManufacturersModelName", frames.DeviceName()},
                     {"SoftwareVersions", std::string("Kinetrel ") + KINETREL_VERSION},
                 }.dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
              << '\n';
  ExportResult result{.complaint = {}, .frames = extent.frames};
  const auto end = [&](WholeFile& file) {
    const std::string complaint = file.End();
    if (result.complaint.empty()) result.complaint = complaint;
  };
  for (WholeFile* each : {&channels, &rows, &about}) end(*each);
  if (extent.markers.empty()) return result;
  WholeFile events(files[3]);
  events.out() << "onset\tduration\ttrial_type\n";
  for (const auto& [utcNs, text] : extent.markers) {
    events.out() << Number(SecondsBetween(extent.begin, utcNs), 6) << "\t0\t"
                 << (text.empty() ? "n/a" : OneLine(text)) << '\n';
  }
  end(events);
  return result;
}

}  // namespace

std::vector<std::filesystem::path> ExportFiles(Export kind, const std::filesystem::path& target) {
  if (kind != Export::Tsv) return {target};
  std::vector<std::filesystem::path> files;
  for (const char* const ending : {"_channels.tsv", "_motion.tsv", "_motion.json", "_events.tsv"}) {
    files.emplace_back(target) += ending;
  }
  return files;
}

ExportResult WriteExport(Export kind, RecordedFrames& frames, const std::filesystem::path& target) {
  switch (kind) {
    case Export::Csv:
      return WriteCsv(frames, target);
    case Export::Tsv:
      return WriteTsv(frames, target);
    case Export::Trc:
      return WriteTrc(frames, target);
  }
  return {};
}

}  // namespace kinetrel::record

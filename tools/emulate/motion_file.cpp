#include "emulate/motion_file.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <optional>
#include <vector>

#include "emulate/numbers.h"

namespace kinetrel {
namespace {

constexpr std::size_t kMostRows = 1'000'000;
constexpr std::size_t kMostColumns = 32;
constexpr unsigned kMostStations = 32;
constexpr double kMost = 1e9;

enum class Column { X, Y, Z, Azimuth, Elevation, Roll, Station, Frame, Time };
constexpr std::array<std::string_view, 9> kColumnNames = {
    "x", "y", "z", "azimuth", "elevation", "roll", "station", "frame", "time"};

using Columns = std::vector<Column>;  // of the file, from the left
using Fields = std::array<std::optional<double>, kColumnNames.size()>;

struct Row {
  double start = 0;  // frame or second
  MotionPose pose;
};
using Track = std::vector<Row>;  // of one station, in order

// ---- Playing -----------------------------------------------------------------------------------

class FileMotion final : public Motion {
 public:
  FileMotion(std::vector<Track> tracks, bool byTime) : tracks_(std::move(tracks)), byTime_(byTime) {
    for (const Track& track : tracks_) {
      if (!track.empty()) length_ = std::max(length_, track.back().start + LastStep(track));
    }
  }

  MotionPose At(unsigned station, std::uint64_t frame, double seconds) const override {
    const Track& own = tracks_[std::min<std::size_t>(station + 1, kMostStations)];
    const Track& track = own.empty() ? tracks_[0] : own;
    if (track.empty()) return {};
    const double at = std::fmod(byTime_ ? seconds : static_cast<double>(frame), length_);
    const auto later = std::upper_bound(track.begin(), track.end(), at,
                                        [](double t, const Row& row) { return t < row.start; });
    return later == track.begin() ? track.front().pose : std::prev(later)->pose;
  }

 private:
  // The last row holds as long as the one before it.
  double LastStep(const Track& track) const {
    if (!byTime_ || track.size() < 2) return 1;
    return track.back().start - track[track.size() - 2].start;
  }

  std::vector<Track> tracks_;  // 0: for all stations; n: of station n
  bool byTime_;
  double length_ = 1;
};

// ---- Reading -----------------------------------------------------------------------------------

bool Skipped(std::string_view line) {
  return line.find_first_not_of(" \t\r") == std::string_view::npos || line.front() == '#';
}

std::optional<Columns> ParseHeader(std::string_view line) {
  Columns columns;
  while (!line.empty()) {
    const auto name = std::find(kColumnNames.begin(), kColumnNames.end(), NextField(line, ','));
    if (name == kColumnNames.end() || columns.size() == kMostColumns) return std::nullopt;
    columns.push_back(static_cast<Column>(name - kColumnNames.begin()));
  }
  return columns;
}

bool Has(const Columns& columns, Column column) {
  return std::find(columns.begin(), columns.end(), column) != columns.end();
}

std::optional<Fields> ParseFields(const Columns& columns, std::string_view line) {
  Fields fields;
  for (const Column column : columns) {
    const auto number = ParseNumber(NextField(line, ','), -kMost, kMost);
    if (!number) return std::nullopt;
    fields[static_cast<std::size_t>(column)] = *number;
  }
  if (!line.empty()) return std::nullopt;
  return fields;
}

class Reader {
 public:
  explicit Reader(Columns columns)
      : columns_(std::move(columns)), byTime_(Has(columns_, Column::Time)) {}

  bool Add(std::string_view line) {
    const auto fields = ParseFields(columns_, line);
    if (!fields || ++rows_ > kMostRows) return false;
    const auto get = [&](Column c) { return (*fields)[static_cast<std::size_t>(c)]; };
    const double station = get(Column::Station).value_or(0);
    if (station < 0 || station > kMostStations || std::floor(station) != station) return false;
    Track& track = tracks_[static_cast<std::size_t>(station)];
    const auto next = static_cast<double>(track.size());
    const double start = get(byTime_ ? Column::Time : Column::Frame).value_or(next);
    if (start < 0 || (!track.empty() && start <= track.back().start)) return false;
    track.push_back({start,
                     {get(Column::X).value_or(0), get(Column::Y).value_or(0),
                      get(Column::Z).value_or(0), get(Column::Azimuth).value_or(0),
                      get(Column::Elevation).value_or(0), get(Column::Roll).value_or(0)}});
    return true;
  }

  std::shared_ptr<const Motion> Finish() {
    if (rows_ == 0) return nullptr;
    return std::make_shared<FileMotion>(std::move(tracks_), byTime_);
  }

 private:
  Columns columns_;
  bool byTime_;
  std::size_t rows_ = 0;
  std::vector<Track> tracks_ = std::vector<Track>(kMostStations + 1);
};

std::string AtLine(std::size_t number, const std::string& complaint) {
  return "line " + std::to_string(number) + ": " + complaint;
}

}  // namespace

MadeMotion ReadMotion(std::istream& text) {
  std::optional<Reader> reader;
  std::string line;
  for (std::size_t number = 1; std::getline(text, line); ++number) {
    if (Skipped(line)) continue;
    if (reader) {
      if (!reader->Add(line))
        return {nullptr, AtLine(number, "no such row, or not after the last")};
      continue;
    }
    auto columns = ParseHeader(line);
    if (!columns) {
      return {nullptr, AtLine(number,
                              "the columns are x, y, z, azimuth, elevation, roll, station, "
                              "and frame or time")};
    }
    reader.emplace(std::move(*columns));
  }
  auto motion = reader ? reader->Finish() : nullptr;
  return {motion, motion ? "" : "there are no poses in it"};
}

MadeMotion ReadMotionFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) return {nullptr, "cannot read " + path};
  MadeMotion made = ReadMotion(file);
  if (!made.motion) made.complaint = path + ": " + made.complaint;
  return made;
}

}  // namespace kinetrel

#include "emulate/motion.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <numbers>
#include <optional>
#include <vector>

#include "emulate/options.h"
#include "emulate/time_and_chance.h"

namespace kinetrel::emulate {
namespace {

// ---- Circle and hold ----------------------------------------------------------------------------

constexpr double kDegrees = 180 / std::numbers::pi;

// To -180 .. 180.
double Wrapped(double degrees) { return std::remainder(degrees, 360); }

class CircleMotion final : public Motion {
 public:
  explicit CircleMotion(const Circle& circle) : circle_(circle) {}

  MotionPose At(unsigned station, std::uint64_t, double seconds) const override {
    const double turns = seconds / circle_.period + 0.25 * station;
    const double angle = 2 * std::numbers::pi * (turns - std::floor(turns));
    return {40 + circle_.radius * std::cos(angle),
            circle_.radius * std::sin(angle),
            20,
            Wrapped(angle * kDegrees + 90),
            10 * std::sin(angle),
            20 * std::cos(angle)};
  }

 private:
  Circle circle_;
};

class HoldMotion final : public Motion {
 public:
  explicit HoldMotion(const MotionPose& pose) : pose_(pose) {}
  MotionPose At(unsigned, std::uint64_t, double) const override { return pose_; }

 private:
  MotionPose pose_;
};

// ---- Noise --------------------------------------------------------------------------------------

// SplitMix64: the next word of a sequence that may begin anywhere.
std::uint64_t NextWord(std::uint64_t& state) {
  state += 0x9E3779B97F4A7C15;
  std::uint64_t word = state;
  word = (word ^ word >> 30) * 0xBF58476D1CE4E5B9;
  word = (word ^ word >> 27) * 0x94D049BB133111EB;
  return word ^ word >> 31;
}

class NoisyMotion final : public Motion {
 public:
  NoisyMotion(std::shared_ptr<const Motion> motion, const PoseNoise& noise, std::uint64_t seed)
      : motion_(std::move(motion)), noise_(noise), seed_(seed) {}

  MotionPose At(unsigned station, std::uint64_t frame, double seconds) const override {
    std::uint64_t state = seed_ + station;
    state = NextWord(state) + frame;
    state = NextWord(state);
    const auto normal = [&state] {
      const std::uint64_t first = NextWord(state);
      return NormalFrom(first, NextWord(state));
    };
    MotionPose pose = motion_->At(station, frame, seconds);
    for (double* const length : {&pose.x, &pose.y, &pose.z}) *length += noise_.length * normal();
    pose.azimuth = Wrapped(pose.azimuth + noise_.angle * normal());
    pose.elevation = std::clamp(pose.elevation + noise_.angle * normal(), -90.0, 90.0);
    pose.roll = Wrapped(pose.roll + noise_.angle * normal());
    return pose;
  }

 private:
  std::shared_ptr<const Motion> motion_;
  PoseNoise noise_;
  std::uint64_t seed_;
};

// ---- Ramp ---------------------------------------------------------------------------------------

// Above the coarsest format's step, 300 cm in 8192 parts, and within the shortest range.
constexpr double kRampStep = 0.05;
constexpr std::uint64_t kRampLength = 2000;
constexpr double kRampStart = -50;

std::uint64_t RampDigit(double centimetres) {
  const double digit = std::round((centimetres - kRampStart) / kRampStep);
  return static_cast<std::uint64_t>(std::clamp(digit, 0.0, static_cast<double>(kRampLength - 1)));
}

double RampPosition(std::uint64_t digit) {
  return kRampStart + kRampStep * static_cast<double>(digit % kRampLength);
}

// Smooth, as a sensor moves: a driver may take a jump for a damaged record.
double RampElevation(double turn) { return 20 * std::sin(turn / kDegrees); }

class RampMotion final : public Motion {
 public:
  MotionPose At(unsigned station, std::uint64_t frame, double) const override {
    const auto turn = static_cast<double>(frame % 360);
    return {RampPosition(frame), 10.0 * (station + 1), RampPosition(frame / kRampLength),
            turn - 180,          RampElevation(turn),  Wrapped(2 * turn)};
  }
};

// ---- As text ------------------------------------------------------------------------------------

constexpr double kMost = 1e6;

// Reads comma-separated numbers into `into`. Returns how many; 0 if a field is not a number.
template <std::size_t Size>
std::size_t ParseList(std::string_view text, std::array<double, Size>& into) {
  std::size_t count = 0;
  while (!text.empty()) {
    const auto number = ParseNumber(NextField(text, ','), -kMost, kMost);
    if (!number || count == Size) return 0;
    into[count++] = *number;
  }
  return count;
}

MadeMotion ParseCircle(std::string_view text) {
  const Circle usual;
  std::array<double, 2> numbers{usual.radius, usual.period};
  if (!text.empty() && (ParseList(text, numbers) == 0 || numbers[1] <= 0)) {
    return {nullptr, "a circle has a radius in cm, and a period in s above 0"};
  }
  return {MakeCircle({numbers[0], numbers[1]})};
}

MadeMotion ParseHold(std::string_view text) {
  std::array<double, 6> numbers{};
  const std::size_t count = ParseList(text, numbers);
  if (count != 3 && count != 6) {
    return {nullptr, "hold wants x,y,z in cm, or these and azimuth,elevation,roll in degrees"};
  }
  return {MakeHold({numbers[0], numbers[1], numbers[2], numbers[3], numbers[4], numbers[5]})};
}

constexpr std::size_t kMostRows = 1'000'000;
constexpr std::size_t kMostColumns = 32;
constexpr unsigned kMostStations = 32;
constexpr double kMostInFile = 1e9;

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

// ---- From a file: playing -----------------------------------------------------------------------

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

// ---- From a file: reading -----------------------------------------------------------------------

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
    const auto number = ParseNumber(NextField(line, ','), -kMostInFile, kMostInFile);
    if (!number) return std::nullopt;
    fields[static_cast<std::size_t>(column)] = *number;
  }
  if (!line.empty()) return std::nullopt;
  return fields;
}

class FileReader {
 public:
  explicit FileReader(Columns columns)
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

std::shared_ptr<const Motion> MakeCircle(const Circle& circle) {
  return std::make_shared<CircleMotion>(circle);
}

std::shared_ptr<const Motion> MakeNoisy(std::shared_ptr<const Motion> motion,
                                        const PoseNoise& noise, std::uint64_t seed) {
  return std::make_shared<NoisyMotion>(std::move(motion), noise, seed);
}

std::optional<PoseNoise> ParsePoseNoise(std::string_view text) {
  constexpr double kMostLength = 100;
  constexpr double kMostAngle = 45;
  const bool hasAngle = text.find(',') != std::string_view::npos;
  const auto length = ParseNumber(NextField(text, ','), 0.0, kMostLength);
  const auto angle = hasAngle ? ParseNumber(text, 0.0, kMostAngle) : std::optional<double>(0.0);
  if (!length || !angle) return std::nullopt;
  return PoseNoise{*length, *angle};
}

std::shared_ptr<const Motion> MakeHold(const MotionPose& pose) {
  return std::make_shared<HoldMotion>(pose);
}

std::shared_ptr<const Motion> MakeRamp() { return std::make_shared<RampMotion>(); }

std::uint64_t RampFrame(double x, double z) { return RampDigit(z) * kRampLength + RampDigit(x); }

const char* const kMotionForms =
    "circle[:RADIUS_CM[,PERIOD_S]], hold:X,Y,Z[,AZ,EL,ROLL] (cm, degrees), ramp, file:CSV";

MadeMotion ParseMotion(std::string_view text) {
  const std::size_t colon = text.find(':');
  const std::string_view kind = text.substr(0, colon);
  const std::string_view rest = colon == std::string_view::npos ? "" : text.substr(colon + 1);
  if (kind == "circle") return ParseCircle(rest);
  if (kind == "hold") return ParseHold(rest);
  if (kind == "file") return ReadMotionFile(std::string(rest));
  if (text == "ramp") return {MakeRamp()};
  return {nullptr, std::string("the motions are ") + kMotionForms};
}

MadeMotion ReadMotion(std::istream& text) {
  std::optional<FileReader> reader;
  std::string line;
  for (std::size_t number = 1; std::getline(text, line); ++number) {
    if (Skipped(line)) continue;
    if (reader) {
      if (!reader->Add(line))
        return {nullptr, AtLine(number, "not a row of these columns, or not after the row before")};
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
  return {motion, motion ? "" : "the file has no poses"};
}

MadeMotion ReadMotionFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) return {nullptr, "cannot read " + path};
  MadeMotion made = ReadMotion(file);
  if (!made.motion) made.complaint = path + ": " + made.complaint;
  return made;
}

}  // namespace kinetrel::emulate

#include "bridge_front/pose_selector.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

namespace kinetrel::bridge {
namespace {

constexpr std::uint32_t kUnitOfGps = 2;

std::vector<std::string> SplitAtCommas(const std::string& text) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == ',') {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

// 1 to 32; 0 if the text is something else.
unsigned SensorNumber(const std::string& text) {
  if (text.empty() || text.size() > 2 || text.find_first_not_of("0123456789") != text.npos) {
    return 0;
  }
  const int number = std::stoi(text);
  return number <= kinetrel_stream_sensors ? static_cast<unsigned>(number) : 0;
}

Quaternion Turn(const std::vector<double>& degrees) {
  if (degrees.empty()) return {};
  constexpr double kRadians = std::numbers::pi / 180;
  return QuaternionOf({degrees[0] * kRadians, degrees[1] * kRadians, degrees[2] * kRadians});
}

Vector Shift(const std::vector<double>& metres) {
  return metres.empty() ? Vector{0, 0, 0} : Vector{metres[0], metres[1], metres[2]};
}

Vector Sum(const Vector& a, const Vector& b) { return {a[0] + b[0], a[1] + b[1], a[2] + b[2]}; }

bool IsFinite(const Vector& v) {
  return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]);
}

}  // namespace

PoseSelector::PoseSelector(OutputOptions& options, const Defaults& defaults) {
  ReadSensors(options);
  ReadNames(options, defaults.name);
  ReadAxes(options, defaults.axes);
  ReadPlacements(options);
}

void PoseSelector::ReadSensors(OutputOptions& options) {
  places_.fill(-1);
  auto text = options.Find("sensors");
  const auto alone = options.Find("sensor");  // people write both
  if (!text) text = alone;
  chosen_ = text.has_value();
  if (!chosen_) {
    sensors_.resize(kinetrel_stream_sensors);
    std::iota(sensors_.begin(), sensors_.end(), 0U);
    std::iota(places_.begin(), places_.end(), 0);
    return;
  }
  for (const std::string& part : SplitAtCommas(*text)) {
    const unsigned number = SensorNumber(part);
    if (number == 0 || places_[number - 1] >= 0) {
      options.Complain("option sensors needs different numbers from 1 to 32, as in sensors=1,3");
      return;
    }
    places_[number - 1] = static_cast<int>(sensors_.size());
    sensors_.push_back(number - 1);
  }
}

void PoseSelector::ReadNames(OutputOptions& options, std::string_view fallback) {
  const auto text = options.Find("name");
  const std::vector<std::string> given = SplitAtCommas(text.value_or(std::string(fallback)));
  const bool each = text && chosen_ && given.size() == sensors_.size();
  if (!each && given.size() != 1) {
    options.Complain("option name needs one name, or one for each number of option sensors");
  }
  for (std::size_t i = 0; i < sensors_.size(); ++i) {
    names_.push_back(each ? given[i] : given[0] + std::to_string(sensors_[i] + 1));
  }
}

void PoseSelector::ReadAxes(OutputOptions& options, std::string_view fallback) {
  if (const AxesPreset* const preset = FindAxesPreset(fallback)) axes_ = preset->axes;
  own_ = axes_.rows;
  if (const auto text = options.Find("axes")) {
    const auto rows = ParseAxes(*text);
    if (const AxesPreset* const named = FindAxesPreset(*text)) {
      axes_ = named->axes;  // with its unit
    } else if (rows) {
      axes_.rows = *rows;
    } else {
      options.Complain(
          "option axes needs three different axes as in x,-z,y, nine numbers of a rotation or "
          "reflection, or the name of a preset");
    }
  }
  ownAxes_ = axes_.rows == own_;
  axes_.scale = options.Number("scale", axes_.scale, 1e-6, 1e6);
}

void PoseSelector::ReadPlacements(OutputOptions& options) {
  const auto mount = options.Numbers("mount", 3);
  const auto room = options.Numbers("room", 3);
  const auto arm = options.Numbers("arm", 3);
  const auto origin = options.Numbers("origin", 3);
  mount_ = Turn(mount);
  room_ = Turn(room);
  arm_ = Shift(arm);
  origin_ = Shift(origin);
  turned_ = !mount.empty() || !room.empty();
  placed_ = turned_ || !arm.empty() || !origin.empty();
}

void PoseSelector::Select(std::span<const kinetrel_record> records, const SourceState& state,
                          std::vector<Pose>& poses) const {
  if (state.run.unit == kUnitOfGps) return;
  for (const kinetrel_record& record : records) {
    if (record.sensor >= kinetrel_stream_sensors || places_[record.sensor] < 0) continue;
    Pose pose = PoseOf(record, static_cast<unsigned>(places_[record.sensor]));
    pose.utcNs = UtcNs(state, record.sample_ns);
    poses.push_back(pose);
  }
}

Pose PoseSelector::PoseOf(const kinetrel_record& record, unsigned place) const {
  Pose pose;
  pose.sensor = record.sensor;
  pose.place = place;
  pose.name = names_[place];
  pose.frame = record.frame;
  pose.sampleNs = record.sample_ns;
  if ((record.flags & kinetrel_buttons_valid) != 0) {
    pose.buttons = record.buttons & record.buttons_known;
    pose.buttonsKnown = record.buttons_known;
  }
  if ((record.flags & kinetrel_code_valid) != 0) pose.deviceCode = record.device_code;

  const auto given = Normalised(
      {record.orientation[0], record.orientation[1], record.orientation[2], record.orientation[3]});
  pose.hasOrientation = (record.flags & kinetrel_orientation_valid) != 0 && given.has_value();
  if (pose.hasOrientation) SetOrientation(pose, record, *given);
  if ((record.flags & kinetrel_position_valid) != 0) {
    SetPosition(pose, record, pose.hasOrientation ? *given : Quaternion{});
  }
  return pose;
}

void PoseSelector::SetPosition(Pose& pose, const kinetrel_record& record,
                               const Quaternion& sensor) const {
  Vector metres = {record.position[0], record.position[1], record.position[2]};
  if (placed_) {
    const Vector body = Sum(metres, MatrixOf(sensor) * arm_);
    metres = Sum(MatrixOf(room_) * body, origin_);
  }
  const Vector position = PositionIn(axes_, metres);
  if (!IsFinite(position)) return;
  pose.hasPosition = true;
  pose.metres = metres;
  pose.position = position;
}

void PoseSelector::SetOrientation(Pose& pose, const kinetrel_record& record,
                                  const Quaternion& sensor) const {
  const Quaternion body = turned_ ? room_ * sensor * mount_ : sensor;
  pose.orientation = OrientationIn(axes_, body);
  const Vector told = {record.angles[0], record.angles[1], record.angles[2]};
  if (!ownAxes_) {
    pose.angles = AnglesOf(MatrixOf(OrientationIn({Transposed(own_), 1}, pose.orientation)));
  } else if (turned_ || !IsFinite(told)) {
    pose.angles = AnglesOf(MatrixOf(body));
  } else {
    pose.angles = {told[0], told[1], told[2]};
  }
}

}  // namespace kinetrel::bridge

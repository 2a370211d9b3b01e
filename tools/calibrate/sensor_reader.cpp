#include "calibrate/sensor_reader.h"

namespace kinetrel::calibrate {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;  // ns
constexpr std::int64_t kPatience = 5 * kSecond;
constexpr std::int64_t kLongestSilence = 2 * kSecond;
constexpr int kLookEveryMs = 100;

}  // namespace

SensorReader::SensorReader(int slot, unsigned sensor, WhichPose which)
    : source_(slot), sensor_(sensor), which_(which) {}

std::string SensorReader::Read(double seconds, std::vector<SensorPose>& poses) {
  poses.clear();
  const std::int64_t begin = kinetrel_now_ns();
  const auto wanted = static_cast<std::int64_t>(seconds * 1e9);
  std::int64_t first = 0;  // when the first and the newest pose came
  std::int64_t newest = 0;
  for (;;) {
    const bridge::StreamSource::News news = source_.Next(kLookEveryMs);
    const std::int64_t now = kinetrel_now_ns();
    for (const kinetrel_record& record : news.records) {
      SensorPose pose;
      // One that waited here since the last point would be of another place.
      if (record.sensor != sensor_ || record.sample_ns < begin || !PoseOf(record, pose)) continue;
      poses.push_back(pose);
      newest = now;
      if (first == 0) first = now;
    }
    if (first != 0 && now - first >= wanted) return "";
    if (now - (first != 0 ? newest : begin) > (first != 0 ? kLongestSilence : kPatience)) {
      return Complaint();
    }
  }
}

bool SensorReader::PoseOf(const kinetrel_record& record, SensorPose& pose) {
  kinetrel_device_pose own;
  if (which_ == WhichPose::Filtered) {
    own.flags = record.flags;
    std::copy_n(record.position, 3, own.position);
    std::copy_n(record.orientation, 4, own.orientation);
  } else if (!source_.DevicePose(record, own)) {
    return false;
  }
  constexpr unsigned kBoth = kinetrel_position_valid | kinetrel_orientation_valid;
  if ((own.flags & kBoth) != kBoth) return false;
  std::copy_n(own.position, 3, pose.position.begin());
  const Rotation shown = {own.orientation[0], own.orientation[1], own.orientation[2],
                          own.orientation[3]};
  const Rotation zero = FromTurn({0.0, 0.0, source_.state().run.azimuth_zero});
  pose.orientation = AtUnitLength(zero * shown);
  deviceName_ = source_.state().run.device_name;
  return true;
}

std::string SensorReader::Complaint() const {
  const bridge::SourceState& state = source_.state();
  if (!state.Delivers()) return "no poses come: " + state.sentence;
  return "sensor " + std::to_string(sensor_ + 1) +
         " sends no pose with position and orientation; is it connected and in range?";
}

Rest RestOf(const std::vector<SensorPose>& poses) {
  Rest rest;
  rest.poses = static_cast<int>(poses.size());
  const double share = 1.0 / static_cast<double>(poses.size());
  Rotation sum{};
  for (const SensorPose& pose : poses) {
    rest.pose.position = rest.pose.position + share * pose.position;
    double cosine = 0.0;
    for (std::size_t i = 0; i < 4; ++i) {
      cosine += pose.orientation[i] * poses.front().orientation[i];
    }
    // A rotation is two quaternions, of opposite signs.
    for (std::size_t i = 0; i < 4; ++i) sum[i] += (cosine < 0.0 ? -1.0 : 1.0) * pose.orientation[i];
  }
  rest.pose.orientation = AtUnitLength(sum);
  double squares = 0.0;
  for (const SensorPose& pose : poses) {
    const Vector3 off = pose.position - rest.pose.position;
    squares += share * Dot(off, off);
  }
  rest.spread = std::sqrt(squares);
  return rest;
}

}  // namespace kinetrel::calibrate

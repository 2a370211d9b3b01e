#include "emulate/live_motion.h"

#include <algorithm>
#include <bit>

namespace kinetrel::emulate {
namespace {

constexpr std::uint32_t Bit(unsigned index) { return index < 32 ? 1U << index : 0; }

}  // namespace

std::uint32_t StationMap::StationsOf(unsigned sensor) const {
  if (sensors_.empty()) return Bit(sensor);
  std::uint32_t stations = 0;
  for (unsigned i = 0; i < sensors_.size(); ++i) {
    if (sensors_[i] == static_cast<int>(sensor) + 1) stations |= Bit(i);
  }
  return stations;
}

unsigned StationMap::CountFor(std::uint32_t sensors) const {
  unsigned count = 0;
  for (unsigned sensor = 0; sensor < 32; ++sensor) {
    if ((sensors & Bit(sensor)) == 0) continue;
    for (unsigned i = 0; i < 32; ++i) {
      if ((StationsOf(sensor) & Bit(i)) != 0) count = std::max(count, i + 1);
    }
  }
  return count;
}

std::string StationMap::Tell(const std::string& source, std::uint32_t sensors) const {
  const int count = std::popcount(sensors);
  std::string text =
      source + " with " + std::to_string(count) + (count == 1 ? " sensor" : " sensors");
  for (const int sensor : sensors_) {
    if ((sensors & Bit(static_cast<unsigned>(sensor - 1))) != 0) continue;
    text += "; it has no sensor " + std::to_string(sensor) + ", whose station sends nothing";
  }
  return text;
}

// ---- The feed's side ----------------------------------------------------------------------------

void LiveMotion::SetSensors(std::uint32_t sensors) {
  const std::lock_guard lock(mutex_);
  sensors_ = sensors;
}

std::uint32_t LiveMotion::Put(unsigned sensor, const LivePose& pose, std::int64_t nowNs) {
  const std::uint32_t stations = map_.StationsOf(sensor);
  const std::lock_guard lock(mutex_);
  for (unsigned i = 0; i < kMostStations; ++i) {
    if ((stations & Bit(i)) == 0) continue;
    Station& station = stations_[i];
    station.has = pose.position || pose.orientation;
    station.sinceNs = nowNs;
    station.buttons = pose.buttons;
    if (pose.position) {
      station.pose.x = (*pose.position)[0] * unitsPerMetre_;
      station.pose.y = (*pose.position)[1] * unitsPerMetre_;
      station.pose.z = (*pose.position)[2] * unitsPerMetre_;
    }
    if (pose.orientation) SetAngles(station.pose, *pose.orientation);
  }
  return pose.position || pose.orientation ? stations : 0;
}

void LiveMotion::ForgetSilent(std::int64_t nowNs, double rate) {
  constexpr std::int64_t kSecondNs = 1'000'000'000;
  const std::int64_t patience =
      std::max(kSecondNs, rate > 0 ? static_cast<std::int64_t>(3e9 / rate) : 0);
  const std::lock_guard lock(mutex_);
  for (Station& station : stations_) {
    if (nowNs - station.sinceNs >= patience) station.has = false;
  }
}

void LiveMotion::ForgetAll() {
  const std::lock_guard lock(mutex_);
  for (Station& station : stations_) station.has = false;
}

// ---- The device's side --------------------------------------------------------------------------

MotionPose LiveMotion::At(unsigned station, std::uint64_t, double) const {
  if (station >= kMostStations) return {};
  const std::lock_guard lock(mutex_);
  return stations_[station].pose;
}

bool LiveMotion::Has(unsigned station) const {
  if (station >= kMostStations) return false;
  const std::lock_guard lock(mutex_);
  return stations_[station].has;
}

std::uint32_t LiveMotion::Buttons(unsigned station) const {
  if (station >= kMostStations) return 0;
  const std::lock_guard lock(mutex_);
  return stations_[station].buttons;
}

unsigned LiveMotion::Stations() const {
  const std::lock_guard lock(mutex_);
  return map_.CountFor(sensors_);
}

}  // namespace kinetrel::emulate

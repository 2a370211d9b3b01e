// The motion of a live source: the newest poses of another tracker, or of a recording that is
// played. A feed writes it, the device reads it.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "emulate/motion.h"

namespace kinetrel::emulate {

// What a source knows of a sensor. What it does not know stays as it was.
struct LivePose {
  std::optional<Vector3> position = {};         // m
  std::optional<Quaternion4> orientation = {};  // unit
  std::uint32_t buttons = 0;
};

// Which sensor of the source each station takes; without a list station n takes sensor n.
class StationMap {
 public:
  StationMap() = default;
  explicit StationMap(std::vector<int> sensors) : sensors_(std::move(sensors)) {}

  // The stations that take this sensor; bit i is station i. Both count from 0.
  std::uint32_t StationsOf(unsigned sensor) const;

  // The stations up to the last one that has one of these sensors (bits).
  unsigned CountFor(std::uint32_t sensors) const;

  // A line for a person: the source has these sensors (bits), and which of the list it has not.
  std::string Tell(const std::string& source, std::uint32_t sensors) const;

 private:
  std::vector<int> sensors_;  // from 1
};

// Threads  any.
class LiveMotion final : public Motion {
 public:
  static constexpr unsigned kMostStations = 32;

  // unitsPerMetre  of the positions that the device takes: 100 for centimetres
  LiveMotion(StationMap map, double unitsPerMetre)
      : map_(std::move(map)), unitsPerMetre_(unitsPerMetre) {}

  const StationMap& map() const { return map_; }

  // ---- The feed's side; sensors count from 0 ---------------------------------------------------

  // The sensors (bits) of the source, which it may have or not have at the moment.
  void SetSensors(std::uint32_t sensors);

  // Returns the stations (bits) that have a new pose now. A pose without position and orientation
  // takes the pose away.
  //
  // nowNs  of any clock, the same in all calls
  std::uint32_t Put(unsigned sensor, const LivePose& pose, std::int64_t nowNs);

  // Takes away the pose of each sensor that has had none for a second, or for three periods of
  // this rate (Hz; 0: not known).
  void ForgetSilent(std::int64_t nowNs, double rate);
  void ForgetAll();

  // ---- The device's side -----------------------------------------------------------------------

  MotionPose At(unsigned station, std::uint64_t frame, double seconds) const override;
  bool IsLive() const override { return true; }
  bool Has(unsigned station) const override;
  std::uint32_t Buttons(unsigned station) const override;
  unsigned Stations() const override;

 private:
  struct Station {
    MotionPose pose;
    std::uint32_t buttons = 0;
    bool has = false;
    std::int64_t sinceNs = 0;
  };

  const StationMap map_;
  const double unitsPerMetre_;
  mutable std::mutex mutex_;  // a leaf, held for a moment; guards the two below
  std::array<Station, kMostStations> stations_{};
  std::uint32_t sensors_ = 0;
};

}  // namespace kinetrel::emulate

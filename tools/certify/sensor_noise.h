// What one sensor delivered: how many poses, and their noise if the sensor was held still.
//
// Held still  The rule, for each of the six axes (position along x, y and z, turn about x, y and z
//             of the tracker's frame). The poses are cut into sections of at least 1 s and ten
//             poses. (1) The sections' means lie within 1 mm or 0.1 degrees, or within what noise
//             of the size seen inside the sections explains: eight standard deviations of such a
//             mean. (2) The standard deviation is below 1 mm or 0.1 degrees, or the poses jump from
//             one to the next as noise does: half the mean squared step is at least 1/50 of the
//             variance. A movement has small steps and a large variance.
// Memory      constant.
#pragma once

#include <kinetrel/stream.h>

#include <array>
#include <cstdint>

#include "certify/spread.h"
#include "filters/rigid_math.h"

namespace kinetrel::certify {

inline constexpr double kStillLength = 0.001;                       // m
inline constexpr double kStillTurn = 0.1 * 3.14159265358979 / 180;  // rad

class AxisNoise {
 public:
  void Add(double value);
  void EndSection();

  const Spread& all() const { return all_; }
  bool IsStill(double tolerance) const;

 private:
  Spread all_;
  double last_ = 0;
  double steps_ = 0;  // squared, summed
  Spread section_;
  Spread means_;       // of the sections
  double within_ = 0;  // squares inside the sections, and how many of them are free
  double freedom_ = 0;
  std::uint64_t smallest_ = 0;  // section, in poses
};

enum class Held { Unknown, Still, Moved };  // Unknown: too few poses

class SensorNoise {
 public:
  void Add(const kinetrel_record& record);

  std::uint64_t poses() const { return poses_; }
  std::uint64_t withoutPosition() const { return poses_ - position_[0].all().count(); }
  std::uint64_t withoutOrientation() const { return poses_ - turn_[0].all().count(); }
  std::uint64_t filtered() const { return filtered_; }

  // m, in the tracker's frame; rad, about its axes, from the first orientation on.
  const std::array<AxisNoise, 3>& position() const { return position_; }
  const std::array<AxisNoise, 3>& turn() const { return turn_; }

  Held PositionHeld() const { return HeldOf(position_, kStillLength); }
  Held TurnHeld() const { return HeldOf(turn_, kStillTurn); }

 private:
  static Held HeldOf(const std::array<AxisNoise, 3>& axes, double tolerance);

  std::array<AxisNoise, 3> position_;
  std::array<AxisNoise, 3> turn_;
  Rotation reference_ = kNoRotation;
  std::int64_t sectionStart_ = 0;  // sample time, ns
  std::uint64_t inSection_ = 0;
  std::uint64_t poses_ = 0;
  std::uint64_t filtered_ = 0;
};

}  // namespace kinetrel::certify

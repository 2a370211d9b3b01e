// From records to what one output sends: the chosen sensors, their names, and their poses in the
// axes and the unit of the target. The options that every output has are read here:
//
//     sensors=1,3        which sensors, as people count them; default: all. sensor=2 is the same
//     name=head          the name of one chosen sensor; of several, one name each (name=head,hand)
//                        or one name that the sensor's number is added to (head1, head3)
//     axes=x,-z,y        target axes as axes of the tracker (x forward, y right, z down), nine
//                        numbers row by row, or the name of a preset, which brings its unit too
//     scale=100          units of length in one metre
//     mount=90,0,0       how the body is turned against its sensor, in degrees:
//                        azimuth, elevation, roll
//     arm=0,0,0.1        where the body is, in m along the sensor's axes
//     room=180,0,0       how the tracker stands in the room, in degrees: azimuth, elevation, roll
//     origin=0,0,-2.4    where the tracker stands in the room, in m
//
// mount and arm come first, then room and origin, then axes and scale.
#pragma once

#include <kinetrel/stream.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bridge_front/axes.h"
#include "bridge_front/output_address.h"
#include "bridge_front/stream_source.h"

namespace kinetrel::bridge {

// What the device said of one chosen sensor at one moment.
struct Pose {
  unsigned sensor = 0;    // from 0
  unsigned place = 0;     // among the chosen sensors, from 0
  std::string_view name;  // as long as the selector lives
  std::uint64_t frame = 0;
  std::int64_t sampleNs = 0;  // of kinetrel_now_ns()
  std::int64_t utcNs = 0;     // the same moment since 1970

  // False: the device did not see the sensor. The value is zero, or the identity, then.
  bool hasPosition = false;
  bool hasOrientation = false;
  Vector position = {0, 0, 0};  // in the target's axes and unit
  Quaternion orientation;       // in the target's axes; length 1
  // rad, in the tracker's frame, after mount and room. Where the operator chose other axes than the
  // protocol's own: as the tracker would tell them if it stood so.
  Angles angles;
  Vector metres = {0, 0, 0};  // the position before axes and scale

  std::uint32_t buttons = 0;  // bit i is button i, for the bits of buttonsKnown
  std::uint32_t buttonsKnown = 0;
  std::int32_t deviceCode = 0;

  bool Seen() const { return hasPosition || hasOrientation; }
};

class PoseSelector {
 public:
  struct Defaults {
    std::string_view axes = "tracker";  // name of a preset
    std::string_view name = "sensor";   // the sensor's number as people count it is added
  };

  // Reads its options; what is wrong with them stays in `options`.
  PoseSelector(OutputOptions& options, const Defaults& defaults);

  // Appends the poses of the chosen sensors among the records, in their order. A GPS receiver
  // (unit 2) has no pose in this sense and gives none.
  void Select(std::span<const kinetrel_record> records, const SourceState& state,
              std::vector<Pose>& poses) const;

  const Axes& axes() const { return axes_; }
  // The chosen sensors, from 0, in the operator's order; all 32 if none were named.
  std::span<const unsigned> sensors() const { return sensors_; }
  bool ChosenByOperator() const { return chosen_; }
  bool Chooses(unsigned sensor) const { return places_[sensor] >= 0; }
  const std::string& NameOf(std::size_t place) const { return names_[place]; }

 private:
  void ReadSensors(OutputOptions& options);
  void ReadNames(OutputOptions& options, std::string_view fallback);
  void ReadAxes(OutputOptions& options, std::string_view fallback);
  void ReadPlacements(OutputOptions& options);
  Pose PoseOf(const kinetrel_record& record, unsigned place) const;
  void SetPosition(Pose& pose, const kinetrel_record& record, const Quaternion& sensor) const;
  void SetOrientation(Pose& pose, const kinetrel_record& record, const Quaternion& sensor) const;

  bool chosen_ = false;
  std::vector<unsigned> sensors_;
  std::vector<std::string> names_;                     // as sensors_
  std::array<int, kinetrel_stream_sensors> places_{};  // of a sensor; -1: not chosen
  Axes axes_;
  Matrix own_ = kIdentity;  // the axes of the protocol
  bool ownAxes_ = true;     // and no others were chosen
  Quaternion mount_;
  Vector arm_ = {0, 0, 0};  // m, along the sensor's axes
  Quaternion room_;
  Vector origin_ = {0, 0, 0};  // m
  bool turned_ = false;        // mount_ or room_ is set, so that the device's angles do not hold
  bool placed_ = false;        // one of mount_, arm_, room_ and origin_ is set
};

}  // namespace kinetrel::bridge

// Tells plausible poses from damaged ones by how the sensor moved before.
//
// A record without a checksum may be damaged unnoticed. But a sensor moves smoothly: its next pose
// lies near the path that its last two poses predict. How near is learned from the sensor itself,
// so that noise widens the bound and rest narrows it. A pose off the path is held back. If the next
// record continues from there, the sensor has really jumped, and the next record is accepted.
//
// Threads  one at a time. Allocates nothing.
#pragma once

#include <array>

#include "devices/pose.h"

namespace kinetrel {

class MotionGate {
 public:
  struct Sample {
    std::array<float, 3> position{};            // cm
    Quaternion rotation = kIdentityQuaternion;  // of unit length
    double time = 0;                            // s
  };
  struct Source {
    double period = 0;      // s, between two records of the sensor
    double resolution = 0;  // of a value, as a part of its full scale; 0 for floats
  };

  // Whether the sample is plausible. The first samples always are.
  bool Accept(Sample sample, const Source& source);

  // Accepts the next samples: the sensor may be anywhere.
  void Forget() { taken_ = 0; }

 private:
  struct Distance {
    double length = 0;  // cm
    double angle = 0;   // radians
    bool Within(const Distance& bound) const {
      return length <= bound.length && angle <= bound.angle;
    }
  };

  static Distance FromPath(const Sample& before, const Sample& last, const Sample& sample,
                           double most);
  Distance Bound(double seconds, const Source& source) const;
  void Take(const Sample& before, const Sample& sample, const Distance& distance,
            const Source& source);

  int taken_ = 0;  // samples, up to those that are needed for learning
  bool suspected_ = false;
  Sample before_;
  Sample last_;
  Sample suspect_;
  Distance usual_;  // mean distance of accepted samples from the path
};

}  // namespace kinetrel

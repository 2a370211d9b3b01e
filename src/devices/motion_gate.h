// Tells plausible poses from damaged ones by how the sensor moved before.
//
// A record without a checksum may be damaged unnoticed. But a sensor moves smoothly: its next pose
// lies near the path that its last poses predict, straight on or bent as before. How near is
// learned from the sensor itself, so that noise widens the bound and rest narrows it. A pose off
// the path is held back. If the next record continues from there, the sensor has really jumped, and
// the next record is accepted.
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
    double lengthStep = 0;  // cm, of a position as it is sent; 0 for floats
    double angleStep = 0;   // radians, the same of an angle
  };

  // A pose as a driver has it: `perCentimetre` is its unit of lengths in cm.
  static Sample SampleOf(const Pose& pose, double unitInCm, double time);

  // Whether the sample is plausible. The first samples always are, also those after a pause.
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
  struct Distances {
    Distance straight;
    Distance bent;
  };

  struct Steps {
    double least;
    double most;
  };

  Steps StepsTo(const Sample& sample) const;
  Distances FromPath(const Sample& before, const Sample& last, const Sample& sample,
                     const Steps& steps) const;
  Distance Bound(double seconds, const Distance& usual, const Source& source) const;
  bool IsNear(const Distances& distances, double seconds, const Source& source) const;
  void Begin(const Sample& sample);
  void Slacken();
  void Take(const Sample& before, const Sample& sample, const Distances& distances,
            const Source& source);

  int taken_ = 0;            // samples, up to those that are needed for learning
  int learnedStraight_ = 0;  // samples in the means below, up to those that count
  int learnedBent_ = 0;
  int even_ = 0;  // accepted samples in a row that came one period after the one before
  static constexpr double kLeastSlack = 0.25;
  double slack_ = kLeastSlack;  // steps by which the next sample may be earlier or later
  int rejected_ = 0;            // since the last sample
  int span_ = 1;                // records from the one before the last sample to that
  Sample older_;
  Sample before_;
  Sample last_;
  Sample suspect_;
  Distances usual_;  // mean distances of accepted samples from the path
};

}  // namespace kinetrel

// Tells plausible poses from damaged ones by how the sensor moved before.
//
// A record without a checksum may be damaged unnoticed. But a sensor moves smoothly: its next pose
// lies near the path that its last poses predict. The gate has two bounds:
//
//   on every line     what a hand or a machine can do to a sensor. A good record is within it.
//   on a damaged one  how near the path the sensor's last poses were, so that noise widens the
//                     bound and rest narrows it. Position and rotation must fit the path at the
//                     same moment.
//
// A line counts as damaged for a while after a record that the first bound refused, if the sensor
// then went on as before. A pose beyond its bound is held back. If the next record continues from
// there, the sensor has really jumped, and the next record is accepted.
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
    // The hardest accelerations of a good sensor: 10 times that of gravity, and a turn to 1500
    // degrees/s in 25 ms.
    double hardestLength = 10'000;  // cm/s2
    double hardestAngle = 60'000 * kRadiansPerDegree;
  };

  // A pose as a driver has it: `unitInCm` is its unit of lengths in cm.
  static Sample SampleOf(const Pose& pose, double unitInCm, double time);

  // Whether the sample is plausible. The first samples always are, also those after a pause.
  bool Accept(Sample sample, const Source& source);

  // Accepts the next samples: the sensor may be anywhere.
  void Forget() { taken_ = 0; }

 private:
  // Of positions in cm, of rotations in radians.
  using Distance = std::array<double, 2>;

  // From the last sample to the next, in records of the sensor. Rejected and lost records count.
  struct Steps {
    double byCount;  // without lost records
    double byTime;
    double least;
    double most;
  };

  // How far a sample is from a path.
  struct Fit {
    Distance off;
    double step;    // where the path comes nearest
    double spread;  // how uncertain the path is there: 1 after even steps, one step on
  };

  // The mean distance of samples from a path, as if each spread had been 1.
  struct Usual {
    Distance off{};
    int learned = 0;  // samples in the mean, up to those that count
  };

  static Distance Tolerance(double seconds, const Source& source);
  static void Learn(Usual& usual, const Fit& fit, const Source& source);

  // How far a sensor can leave its path, whatever moves it.
  Distance Reach(double seconds, double before, double spread, const Source& source) const;

  Fit FitStraight(const Sample& sample, const Steps& steps) const;
  Fit FitBent(const Sample& sample, const Steps& steps) const;
  Steps StepsTo(const Sample& sample) const;
  double StepsTaken(const Steps& steps, const Fit& straight) const;
  bool IsNear(const Fit& straight, const Fit& bent, const Distance& tolerance) const;
  bool IsPossible(const Sample& sample, const Steps& steps, const Source& source) const;
  bool IsPlausible(const Sample& sample, const Steps& steps, const Fit& straight, const Fit& bent,
                   const Source& source) const;
  bool ContinuesJump(const Sample& sample, const Source& source) const;
  void Begin(const Sample& sample, const Source& source);
  void Slacken();
  void LearnPeriod(double seconds);
  void Take(const Sample& sample, double steps);

  int taken_ = 0;   // samples, up to those that are needed for learning
  int onPath_ = 0;  // the same since the sensor last jumped
  static constexpr double kLeastSlack = 0.5;
  double slack_ = kLeastSlack;  // steps by which the next sample may be earlier or later
  double period_ = 0;           // s, the mean time of a step
  int rejected_ = 0;            // since the last sample
  Sample older_;
  Sample before_;
  Sample last_;
  double stepsToBefore_ = 1;  // from older_
  double stepsToLast_ = 1;    // from before_
  Sample suspect_;            // the rejected sample, while rejected_ is not 0
  bool impossible_ = false;   // so is the suspect
  int damaged_ = 0;           // samples for which the line still counts as damaged
  Usual straight_;
  Usual bent_;
};

}  // namespace kinetrel

// The motion of the emulated sensors. It is known, so that a test can check what a client sees.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "emulate/pose.h"

namespace kinetrel::emulate {

// Threads  any. A motion never changes, except a live one.
class Motion {
 public:
  virtual ~Motion() = default;

  // ---- A live source answers otherwise
  // -----------------------------------------------------------

  // Poses come when the source has them: a device that streams sends each as it comes.
  virtual bool IsLive() const { return false; }
  virtual bool Has(unsigned /*station*/) const { return true; }            // a pose now
  virtual std::uint32_t Buttons(unsigned /*station*/) const { return 0; }  // bit i: button i
  virtual unsigned Stations() const { return 0; }  // that the source serves; 0: any number

  // ---- All motions
  // -------------------------------------------------------------------------------

  // station  from 0
  // frame    counts the device's frames from 0: all stations' records of one round are one frame
  // seconds  that frame's time at the device's rate
  virtual MotionPose At(unsigned station, std::uint64_t frame, double seconds) const = 0;
};

// A circle about the vertical, level, nose forward; the stations follow each other.
struct Circle {
  double radius = 30;  // cm, about x 40, y 0, z 20
  double period = 10;  // s
};
std::shared_ptr<const Motion> MakeCircle(const Circle& circle);

std::shared_ptr<const Motion> MakeHold(const MotionPose& pose);

// Every pose encodes the number of its frame, at the precision of every record format: see
// RampFrame.
std::shared_ptr<const Motion> MakeRamp();

// What the device's noise does to each pose: standard deviations of each coordinate and each angle.
struct PoseNoise {
  double length = 0;  // cm
  double angle = 0;   // degrees
};

// `motion` with normally distributed noise. The same seed, station and frame get the same noise.
std::shared_ptr<const Motion> MakeNoisy(std::shared_ptr<const Motion> motion,
                                        const PoseNoise& noise, std::uint64_t seed);

// "CM[,DEGREES]"; empty if it is anything else.
std::optional<PoseNoise> ParsePoseNoise(std::string_view text);

// The frame that a pose of the ramp belongs to, from its x and z in centimetres.
std::uint64_t RampFrame(double x, double z);

struct MadeMotion {
  std::shared_ptr<const Motion> motion;  // null: see complaint
  std::string complaint = {};
};

// "circle[:RADIUS[,PERIOD]]", "hold:X,Y,Z[,AZIMUTH,ELEVATION,ROLL]", "ramp" or "file:PATH".
MadeMotion ParseMotion(std::string_view text);
extern const char* const kMotionForms;  // the same for the help

// ---- From a file --------------------------------------------------------------------------------

// Poses from a file of comma-separated values.
//
// The first line names the columns, in any order: x, y, z (cm), azimuth, elevation, roll (degrees);
// station (from 1; without it every row is for all stations), and frame or time (s), which say when
// a row begins. Without both, a station's rows are its frames. A missing pose column is 0. After
// the last row the motion starts again. Empty lines and lines that begin with # are skipped.
//
//   time,station,x,y,z,azimuth,elevation,roll
//   0,1,10,0,0,0,0,0
//   0.5,1,12.5,0,0,90,0,0
//
// At most a million rows.
MadeMotion ReadMotion(std::istream& text);
MadeMotion ReadMotionFile(const std::string& path);

}  // namespace kinetrel::emulate

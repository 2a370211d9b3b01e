// Where the emulated sensors are: known motion, so that what a client sees can be checked.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace kinetrel {

// In centimetres and degrees; the device converts to what it sends. Azimuth turns about z, then
// elevation about y, then roll about x.
struct MotionPose {
  double x = 0;
  double y = 0;
  double z = 0;
  double azimuth = 0;
  double elevation = 0;
  double roll = 0;

  bool operator==(const MotionPose&) const = default;
};

// Threads  any: a motion never changes.
class Motion {
 public:
  virtual ~Motion() = default;

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

// Every pose tells its frame, at the precision of every record format: see RampFrame.
std::shared_ptr<const Motion> MakeRamp();

// The frame that a pose of the ramp belongs to, from its x and z in centimetres.
std::uint64_t RampFrame(double x, double z);

struct MadeMotion {
  std::shared_ptr<const Motion> motion;  // null: see complaint
  std::string complaint = {};
};

// "circle[:RADIUS[,PERIOD]]", "hold:X,Y,Z[,AZIMUTH,ELEVATION,ROLL]", "ramp" or "file:PATH".
MadeMotion ParseMotion(std::string_view text);
extern const char* const kMotionForms;  // the same for a person

}  // namespace kinetrel

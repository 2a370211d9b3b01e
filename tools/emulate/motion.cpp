#include "emulate/motion.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <vector>

#include "emulate/motion_file.h"
#include "emulate/numbers.h"

namespace kinetrel {
namespace {

// ---- Circle and hold ---------------------------------------------------------------------------

constexpr double kDegrees = 180 / std::numbers::pi;

// To -180 .. 180.
double Wrapped(double degrees) { return std::remainder(degrees, 360); }

class CircleMotion final : public Motion {
 public:
  explicit CircleMotion(const Circle& circle) : circle_(circle) {}

  MotionPose At(unsigned station, std::uint64_t, double seconds) const override {
    const double turns = seconds / circle_.period + 0.25 * station;
    const double angle = 2 * std::numbers::pi * (turns - std::floor(turns));
    return {40 + circle_.radius * std::cos(angle),
            circle_.radius * std::sin(angle),
            20,
            Wrapped(angle * kDegrees + 90),
            10 * std::sin(angle),
            20 * std::cos(angle)};
  }

 private:
  Circle circle_;
};

class HoldMotion final : public Motion {
 public:
  explicit HoldMotion(const MotionPose& pose) : pose_(pose) {}
  MotionPose At(unsigned, std::uint64_t, double) const override { return pose_; }

 private:
  MotionPose pose_;
};

// ---- Ramp --------------------------------------------------------------------------------------

// Above the coarsest format's step, 300 cm in 8192 parts, and within the shortest range.
constexpr double kRampStep = 0.05;
constexpr std::uint64_t kRampLength = 2000;
constexpr double kRampStart = -50;

std::uint64_t RampDigit(double centimetres) {
  const double digit = std::round((centimetres - kRampStart) / kRampStep);
  return static_cast<std::uint64_t>(std::clamp(digit, 0.0, static_cast<double>(kRampLength - 1)));
}

double RampPosition(std::uint64_t digit) {
  return kRampStart + kRampStep * static_cast<double>(digit % kRampLength);
}

class RampMotion final : public Motion {
 public:
  MotionPose At(unsigned station, std::uint64_t frame, double) const override {
    const auto turn = static_cast<double>(frame % 360);
    return {RampPosition(frame),
            10.0 * (station + 1),
            RampPosition(frame / kRampLength),
            turn - 180,
            static_cast<double>(frame % 90),
            Wrapped(2 * turn)};
  }
};

// ---- As text -----------------------------------------------------------------------------------

constexpr double kMost = 1e6;

// Comma-separated numbers into `into`; how many, 0 where one is none.
template <std::size_t Size>
std::size_t ParseList(std::string_view text, std::array<double, Size>& into) {
  std::size_t count = 0;
  while (!text.empty()) {
    const auto number = ParseNumber(NextField(text, ','), -kMost, kMost);
    if (!number || count == Size) return 0;
    into[count++] = *number;
  }
  return count;
}

MadeMotion ParseCircle(std::string_view text) {
  const Circle usual;
  std::array<double, 2> numbers{usual.radius, usual.period};
  if (!text.empty() && (ParseList(text, numbers) == 0 || numbers[1] <= 0)) {
    return {nullptr, "a circle has a radius in cm, and a period in s above 0"};
  }
  return {MakeCircle({numbers[0], numbers[1]})};
}

MadeMotion ParseHold(std::string_view text) {
  std::array<double, 6> numbers{};
  const std::size_t count = ParseList(text, numbers);
  if (count != 3 && count != 6) {
    return {nullptr, "hold wants x,y,z in cm, or these and azimuth,elevation,roll in degrees"};
  }
  return {MakeHold({numbers[0], numbers[1], numbers[2], numbers[3], numbers[4], numbers[5]})};
}

}  // namespace

std::shared_ptr<const Motion> MakeCircle(const Circle& circle) {
  return std::make_shared<CircleMotion>(circle);
}

std::shared_ptr<const Motion> MakeHold(const MotionPose& pose) {
  return std::make_shared<HoldMotion>(pose);
}

std::shared_ptr<const Motion> MakeRamp() { return std::make_shared<RampMotion>(); }

std::uint64_t RampFrame(double x, double z) { return RampDigit(z) * kRampLength + RampDigit(x); }

const char* const kMotionForms =
    "circle[:RADIUS_CM[,PERIOD_S]], hold:X,Y,Z[,AZ,EL,ROLL] (cm, degrees), ramp, file:CSV";

MadeMotion ParseMotion(std::string_view text) {
  const std::size_t colon = text.find(':');
  const std::string_view kind = text.substr(0, colon);
  const std::string_view rest = colon == std::string_view::npos ? "" : text.substr(colon + 1);
  if (kind == "circle") return ParseCircle(rest);
  if (kind == "hold") return ParseHold(rest);
  if (kind == "file") return ReadMotionFile(std::string(rest));
  if (text == "ramp") return {MakeRamp()};
  return {nullptr, std::string("the motions are ") + kMotionForms};
}

}  // namespace kinetrel

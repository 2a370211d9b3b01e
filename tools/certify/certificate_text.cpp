#include <cmath>
#include <numbers>

#include "certify/certificate.h"
#include "report/html_page.h"

namespace kinetrel::certify {
namespace {

using report::Format;

constexpr double kMs = 1e3;
constexpr double kMsOfNs = 1e-6;
constexpr double kDegrees = 180 / std::numbers::pi;

double Worst(const std::array<AxisNoise, 3>& axes) {
  double worst = 0;
  for (const AxisNoise& axis : axes) worst = std::max(worst, axis.all().Deviation());
  return worst;
}

std::string NoiseWords(const Measurement& measured) {
  double position = -1, turn = -1;  // the worst axis of the sensors that were held still
  for (const auto& [number, sensor] : measured.sensors()) {
    if (sensor.PositionHeld() == Held::Still)
      position = std::max(position, Worst(sensor.position()));
    if (sensor.TurnHeld() == Held::Still) turn = std::max(turn, Worst(sensor.turn()));
  }
  std::string text;
  if (position >= 0) text += Format("%.3g mm (position)", position * kMs);
  if (turn >= 0) text += (text.empty() ? "" : " and ") + Format("%.3g° (turn)", turn * kDegrees);
  if (text.empty()) return " Static noise was not measured because no sensor was held still.";
  return " With the sensor held still, the standard deviation of its poses was at most " + text +
         " on any axis.";
}

}  // namespace

double SilenceAtTheEnd(const Measurement& measured, const Circumstances& about) {
  const double silence = about.watched - measured.lastPoseSeconds();
  return measured.records() > 0 && silence >= 1 ? silence : 0;
}

std::string MethodsText(const Measurement& measured, const Circumstances& about) {
  const FramePace& pace = measured.pace();
  if (pace.frames() < 2) return "The tracker delivered too few poses to describe it.";
  std::string text = Format(
      "Poses came from the tracker %s through Kinetrel %s on %s%s. Over %.1f min the tracker "
      "delivered %.2f frames per second%s; the standard deviation of the time between frames was "
      "%.3g ms.",
      measured.run().device_name, about.version.c_str(), about.machine.system.c_str(),
      about.machine.processor.empty() ? "" : (" (" + about.machine.processor + ")").c_str(),
      pace.seconds() / 60, pace.DeliveredHertz(),
      pace.nominal() > 0 ? Format(" (nominal rate %g Hz)", pace.nominal()).c_str() : "",
      pace.intervals().Deviation() * kMs);
  if (pace.HasPace()) {
    text += pace.Missing() == 0 ? " No frame was missing."
                                : Format(" %llu frames (%.2g %%) were missing.",
                                         static_cast<unsigned long long>(pace.Missing()),
                                         pace.MissingShare() * 100);
  }
  if (pace.interruptions() > 0) {
    text += Format(" The tracker's poses were interrupted %llu time%s, for %.1f s in all.",
                   static_cast<unsigned long long>(pace.interruptions()),
                   pace.interruptions() == 1 ? "" : "s", pace.interruptedSeconds());
  }
  if (measured.age().count() > 0) {
    text += Format(
        " From the sampling of a pose until a client program had it, %.3g ms passed in the median "
        "and %.3g ms in the 99.9th percentile.",
        measured.age().Quantile(0.5) * kMsOfNs, measured.age().Quantile(0.999) * kMsOfNs);
  }
  bool isFiltered = false;
  for (const auto& [number, sensor] : measured.sensors()) {
    isFiltered = isFiltered || sensor.filtered() > 0;
  }
  if (isFiltered) text += " The poses went through filters.";
  return text + NoiseWords(measured);
}

std::string Summary(const Measurement& measured) {
  const FramePace& pace = measured.pace();
  if (pace.frames() < 2) return "";
  std::string text = Format("  rate     %.3f Hz, jitter %.3g ms\n", pace.DeliveredHertz(),
                            pace.intervals().Deviation() * kMs);
  text += pace.HasPace()
              ? Format("  missing  %llu frames (%.3g %%), %llu gaps, %llu interruptions\n",
                       static_cast<unsigned long long>(pace.Missing()), pace.MissingShare() * 100,
                       static_cast<unsigned long long>(pace.gaps()),
                       static_cast<unsigned long long>(pace.interruptions()))
              : "  missing  unknown: the frames keep no even pace\n";
  if (measured.age().count() > 0) {
    text +=
        Format("  age      %.3g ms median, %.3g ms 99.9 %%\n",
               measured.age().Quantile(0.5) * kMsOfNs, measured.age().Quantile(0.999) * kMsOfNs);
  }
  return text;
}

}  // namespace kinetrel::certify

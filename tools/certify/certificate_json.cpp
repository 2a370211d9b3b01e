#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <numbers>

#include "certify/certificate.h"

namespace kinetrel::certify {
namespace {

using Json = nlohmann::ordered_json;

constexpr double kMs = 1e3;  // of seconds
constexpr double kMsOfNs = 1e-6;
constexpr double kDegrees = 180 / std::numbers::pi;

// Without digits that only the conversion from binary brings.
Json Figure(double value) {
  if (!std::isfinite(value)) return nullptr;
  char text[40];
  std::snprintf(text, sizeof text, "%.9g", value);
  return std::strtod(text, nullptr);
}

Json Rate(const FramePace& pace) {
  return {{"deliveredHz", Figure(pace.DeliveredHertz())},
          {"withoutInterruptionsHz", Figure(pace.RunningHertz())},
          {"nominalHz", pace.nominal() > 0 ? Json(pace.nominal()) : Json(nullptr)},
          {"frames", pace.frames()},
          {"seconds", Figure(pace.seconds())}};
}

Json Intervals(const FramePace& pace) {
  if (pace.intervals().count() < 2) return nullptr;
  return {{"meanMs", Figure(pace.intervals().mean() * kMs)},
          {"jitterMs", Figure(pace.intervals().Deviation() * kMs)},
          {"leastMs", Figure(pace.intervals().low() * kMs)},
          {"medianMs", Figure(pace.IntervalQuantile(0.5) * kMs)},
          {"percentile1Ms", Figure(pace.IntervalQuantile(0.01) * kMs)},
          {"percentile99Ms", Figure(pace.IntervalQuantile(0.99) * kMs)},
          {"mostMs", Figure(pace.intervals().high() * kMs)}};
}

Json Gaps(const FramePace& pace) {
  Json gaps = {{"count", pace.gaps()},
               {"longestMs", Figure(pace.longestGap() * kMs)},
               {"interruptions", pace.interruptions()},
               {"interruptedSeconds", Figure(pace.interruptedSeconds())}};
  gaps["missingFrames"] = pace.HasPace() ? Json(pace.Missing()) : Json(nullptr);
  gaps["missingShare"] = pace.HasPace() ? Figure(pace.MissingShare()) : Json(nullptr);
  return gaps;
}

Json Ages(const TimeHistogram& ages) {
  if (ages.count() == 0) return nullptr;
  return {{"poses", ages.count()},
          {"meanMs", Figure(ages.spread().mean() * kMsOfNs)},
          {"medianMs", Figure(ages.Quantile(0.5) * kMsOfNs)},
          {"percentile90Ms", Figure(ages.Quantile(0.9) * kMsOfNs)},
          {"percentile99Ms", Figure(ages.Quantile(0.99) * kMsOfNs)},
          {"percentile99_9Ms", Figure(ages.Quantile(0.999) * kMsOfNs)},
          {"mostMs", Figure(ages.spread().high() * kMsOfNs)}};
}

Json ClockOf(const FramePace& pace) {
  const ClockFit clock = pace.Clock();
  if (!clock.known) return nullptr;
  Json json = {{"method", "count of frames, missing ones included, on this computer's clock"},
               {"frameHz", Figure(clock.hertz)},
               {"unevennessMs", Figure(clock.unevenness * kMs)}};
  json["driftPpm"] = pace.KeepsNominal() ? Figure(clock.partsPerMillion) : Json(nullptr);
  json["uncertaintyPpm"] = Figure(clock.uncertainty);
  return json;
}

Json Axes(const std::array<AxisNoise, 3>& axes, Held held, double factor) {
  Json json = {{"held", held == Held::Still ? "still" : held == Held::Moved ? "moved" : "unknown"}};
  for (std::size_t i = 0; i < 3; ++i) {
    const Spread& all = axes[i].all();
    json[std::string(1, "xyz"[i])] =
        held != Held::Still ? Json(nullptr)
                            : Json{{"deviation", Figure(all.Deviation() * factor)},
                                   {"peakToPeak", Figure((all.high() - all.low()) * factor)}};
  }
  return json;
}

Json Sensors(const Measurement& measured) {
  Json sensors = Json::array();
  for (const auto& [number, sensor] : measured.sensors()) {
    const char* name = measured.run().sensor_names[number];
    Json json = {{"sensor", number + 1}, {"name", name}, {"poses", sensor.poses()}};
    json["withoutPosition"] = sensor.withoutPosition();
    json["withoutOrientation"] = sensor.withoutOrientation();
    json["filtered"] = sensor.filtered();
    json["positionMm"] = Axes(sensor.position(), sensor.PositionHeld(), kMs);
    json["turnDegrees"] = Axes(sensor.turn(), sensor.TurnHeld(), kDegrees);
    sensors.push_back(std::move(json));
  }
  return sensors;
}

Json Configuration(const kinetrel_run& run) {
  Json sensors = Json::array();
  for (unsigned i = 0; i < kinetrel_stream_sensors; ++i) {
    if ((run.sensor_mask >> i & 1U) != 0) sensors.push_back(i + 1);
  }
  return {{"deviceType", run.device_type},
          {"port", run.port},
          {"sensors", sensors},
          {"position", (run.components & 1U) != 0},
          {"angles", (run.components & 2U) != 0},
          {"quaternion", (run.components & 4U) != 0},
          {"azimuthZeroDegrees", Figure(run.azimuth_zero * kDegrees)}};
}

}  // namespace

std::string CertificateJson(const Measurement& measured, const Circumstances& about) {
  const FramePace& pace = measured.pace();
  Json json = {{"program", "kinetrel-certify"}, {"format", 1}, {"version", about.version}};
  json["slot"] = about.slot;
  json["began"] = about.began;
  json["askedSeconds"] = about.asked;
  json["watchedSeconds"] = Figure(about.watched);
  json["silentAtEndSeconds"] = Figure(SilenceAtTheEnd(measured, about));
  json["ending"] = about.ending;
  json["device"] = measured.run().device_name;
  json["trackerState"] = about.trackerState;
  json["configuration"] = Configuration(measured.run());
  json["rate"] = Rate(pace);
  json["intervals"] = Intervals(pace);
  json["gaps"] = Gaps(pace);
  json["age"] = Ages(measured.age());
  json["ageAtPublication"] = Ages(measured.toPublication());
  json["fromPublicationToClient"] = Ages(measured.toClient());
  json["clock"] = ClockOf(pace);
  json["sensors"] = Sensors(measured);
  json["loss"] = {{"unusableRecords", measured.counts().dropped},
                  {"failedReads", measured.counts().failedReads},
                  {"lostAtThisClient", measured.lostHere()},
                  {"recoveries", measured.counts().recoveries},
                  {"programsSeen", measured.writers()}};
  Json events = Json::array();
  for (const Event& event : measured.events()) {
    events.push_back({{"seconds", event.seconds < 0 ? Json(nullptr) : Figure(event.seconds)},
                      {"text", event.text}});
  }
  json["events"] = events;
  json["eventsLeftOut"] = measured.eventsLeftOut();
  json["machine"] = {{"system", about.machine.system},
                     {"kernel", about.machine.kernel},
                     {"processor", about.machine.processor},
                     {"processors", about.machine.processors},
                     {"samplingPriority", about.priority}};
  json["methods"] = MethodsText(measured, about);
  // A text of another program may hold any bytes; JSON takes only UTF-8.
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace kinetrel::certify

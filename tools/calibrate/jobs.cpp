#include "calibrate/jobs.h"

#include <cstdio>

#include "filters/rigid_fit.h"

namespace kinetrel::calibrate {
namespace {

// Of the room's points, rms. A tracker without metal near it keeps well below the first one.
constexpr double kGoodRoom = 0.003;  // m
constexpr double kUsableRoom = 0.015;
constexpr double kThinnest = 0.05;  // of the points' second spread to their largest one

constexpr double kGoodTip = 0.0005;  // m, the largest standard error
constexpr double kUsableTip = 0.002;

constexpr double kGoodMap = 1.0 / 3.0;  // of the error without the map

template <typename... Values>
std::string Text(const char* format, Values... values) {
  char text[256];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

std::string Millimetres(double metres) { return Text("%.2f mm", metres * 1e3); }

std::string VectorText(const Vector3& v, const char* format, double factor) {
  std::string text;
  for (const double part : v) text += (text.empty() ? "" : "/") + Text(format, part * factor);
  return text;
}

std::string NameOf(const PosePair& pair, std::size_t at) {
  return pair.name.empty() ? std::to_string(at + 1) : pair.name;
}

const Residual& Worst(const std::vector<Residual>& residuals) {
  return *std::ranges::max_element(residuals, [](const Residual& a, const Residual& b) {
    return Length(a.off) < Length(b.off);
  });
}

Grade GradeOf(double value, double good, double usable) {
  return value <= good ? Grade::Good : value <= usable ? Grade::Usable : Grade::Bad;
}

}  // namespace

Finding FindRoom(const PosePairTable& table) {
  Finding finding;
  finding.title = "From the tracker to the room";
  std::vector<Vector3> measured;
  std::vector<Vector3> truth;
  for (const PosePair& pair : table.pairs) {
    measured.push_back(pair.measured);
    truth.push_back(pair.truth);
  }
  if (measured.size() < 3) {
    finding.verdict =
        "It takes at least three points; there are " + std::to_string(measured.size()) + ".";
    return finding;
  }
  const Vector3 spread = SpreadOf(truth);
  if (!(spread[1] > kThinnest * spread[0])) {
    finding.verdict = "The points lie almost on one line. Choose one far beside it.";
    return finding;
  }
  const RigidFit fit = FitRigid(measured, truth);
  for (std::size_t i = 0; i < measured.size(); ++i) {
    finding.residuals.push_back({NameOf(table.pairs[i], i), truth[i], fit.residuals[i]});
  }
  const double rms = RmsLength(fit.residuals);
  const Residual& worst = Worst(finding.residuals);
  const double scale = FitRigid(measured, truth, FitScale::Free).scale;
  finding.figures = {
      {"Points", std::to_string(measured.size())},
      {"Error of the points, rms", Millimetres(rms)},
      {"Largest error", Millimetres(Length(worst.off)) + " at " + worst.name},
      {"Origin of the tracker in the room", VectorText(fit.shift, "%.4f", 1.0) + " m"},
      {"Turn of the tracker in the room",
       VectorText(ToAngles(fit.turn), "%.3f", kDegreesPerRadian) + " degrees"},
      {"Lengths that the tracker measures", Text("%.2f %% of the true ones", 100.0 / scale)}};
  finding.grade = GradeOf(rms, kGoodRoom, kUsableRoom);
  if (finding.grade == Grade::Good) {
    finding.verdict = "The points fit together.";
  } else if (finding.grade == Grade::Usable) {
    finding.verdict = "The points fit together roughly. Measure " + worst.name +
                      " again, or make a map if metal is near.";
  } else {
    finding.verdict = "The points do not fit together. Check the true position of " + worst.name +
                      " and the order of the points; make a map first if metal is near.";
  }
  if (measured.size() == 3) {
    finding.verdict += " Three points leave little to check: a fourth one would show a mistake.";
  }
  finding.filter = "rigid:translation-m=" + VectorText(fit.shift, "%.6f", 1.0) +
                   ",rotation-deg=" + VectorText(ToAngles(fit.turn), "%.5f", kDegreesPerRadian);
  return finding;
}

Finding FindTip(std::span<const SensorPose> poses, unsigned sensor) {
  Finding finding;
  finding.title = "Tip of the tool";
  finding.sensor = sensor;
  PivotFit fit;
  const std::string complaint = FitPivot(poses, fit);
  if (!complaint.empty()) {
    finding.verdict = "The tip is not known: " + complaint + ".";
    return finding;
  }
  for (std::size_t i = 0; i < poses.size(); ++i) {
    finding.residuals.push_back({std::to_string(i + 1), poses[i].position, fit.residuals[i]});
  }
  const double rms = RmsLength(fit.residuals);
  const double error = std::ranges::max(fit.tipError);
  finding.figures = {
      {"Poses", std::to_string(poses.size())},
      {"Tip in the sensor's frame", VectorText(fit.tip, "%.2f", 1e3) + " mm"},
      {"Standard errors of the tip", VectorText(fit.tipError, "%.3f", 1e3) + " mm"},
      {"Distance from sensor to tip", Millimetres(Length(fit.tip))},
      {"Place of the tip in the tracker's frame", VectorText(fit.pivot, "%.4f", 1.0) + " m"},
      {"Error of the poses, rms", Millimetres(rms)},
      {"Largest error", Millimetres(Length(Worst(finding.residuals).off))}};
  finding.grade = GradeOf(error, kGoodTip, kUsableTip);
  if (finding.grade == Grade::Good) {
    finding.verdict = "The tip is known well.";
  } else if (finding.grade == Grade::Usable) {
    finding.verdict = "The tip is known roughly. Measure longer, and tilt the tool more.";
  } else {
    finding.verdict =
        "The tip is not known well enough. The tip slipped, the tool turned too little, "
        "or metal is near.";
  }
  finding.filter = "rigid:tip-m=" + VectorText(fit.tip, "%.6f", 1.0);
  return finding;
}

Finding FindMap(const PosePairTable& table, MapModel model, int degree, const std::string& file) {
  Finding finding;
  finding.title = "Map of the distortion";
  std::string error;
  const auto map = DistortionMap::Fit(table, model, degree, error);
  if (map == nullptr) {
    finding.verdict = "There is no map: " + error + ".";
    return finding;
  }
  const DistortionMap::Report& report = map->report();
  for (std::size_t i = 0; i < table.pairs.size(); ++i) {
    finding.residuals.push_back({NameOf(table.pairs[i], i), table.pairs[i].truth, report.points[i],
                                 Length(report.rigid[i])});
  }
  const Residual& worst = Worst(finding.residuals);
  finding.figures = {
      {"Points", std::to_string(table.pairs.size())},
      {"Error without the map, rms", Millimetres(report.without)},
      {"Error of a point foretold from the others, rms", Millimetres(report.leftOut)},
      {"Largest such error", Millimetres(report.largest) + " at " + worst.name}};
  if (table.hasOrientations) {
    finding.figures.push_back({"Error of an orientation foretold from the others, rms",
                               Text("%.3f degrees", report.leftOutTurn * kDegreesPerRadian)});
  }
  const bool good = report.leftOut <= kGoodMap * report.without;
  finding.grade = good ? Grade::Good : Grade::Usable;
  finding.verdict =
      good ? "The map removes most of the distortion."
           : "The map removes a part of the distortion. More points, where the errors are "
             "large, would remove more.";
  if (report.largest > 4.0 * report.leftOut)
    finding.verdict += " Measure " + worst.name + " again.";
  finding.filter = "map:file=" + file;
  if (model == MapModel::Polynomial) {
    finding.filter += ",model=polynomial,degree=" + std::to_string(degree);
  }
  return finding;
}

}  // namespace kinetrel::calibrate

#include <cmath>
#include <numbers>

#include "certify/certificate.h"
#include "report/html_page.h"
#include "report/plot.h"

namespace kinetrel::certify {
namespace {

using report::Axis;
using report::Escaped;
using report::Format;

using Rows = std::vector<std::pair<std::string, std::string>>;

constexpr double kMs = 1e3;  // of seconds
constexpr double kMsOfNs = 1e-6;
constexpr double kDegrees = 180 / std::numbers::pi;
constexpr int kBars = 80;

std::string Count(std::uint64_t number) { return std::to_string(number); }

std::string Section(const char* title, const std::string& content) {
  return "<h2>" + std::string(title) + "</h2>\n" + content;
}

// ---- Figures -----------------------------------------------------------------------------------

std::string RateSection(const FramePace& pace) {
  Rows rows = {{"Delivered rate", Format("%.3f Hz over %.1f s, interruptions included",
                                         pace.DeliveredHertz(), pace.seconds())}};
  if (pace.interruptions() > 0) {
    rows.emplace_back("Rate without interruptions", Format("%.3f Hz", pace.RunningHertz()));
  }
  rows.emplace_back("Nominal rate", pace.nominal() > 0
                                        ? Format("%g Hz, as the device states it", pace.nominal())
                                        : "the device states none");
  rows.emplace_back("Time between frames",
                    Format("mean %.4f ms, median %.4f ms", pace.intervals().mean() * kMs,
                           pace.IntervalQuantile(0.5) * kMs));
  rows.emplace_back("Jitter", Format("%.4g ms, standard deviation of the time between frames",
                                     pace.intervals().Deviation() * kMs));
  rows.emplace_back("98 % of the intervals",
                    Format("%.4f to %.4f ms", pace.IntervalQuantile(0.01) * kMs,
                           pace.IntervalQuantile(0.99) * kMs));
  rows.emplace_back("All intervals",
                    Format("%.4f to %.4f ms, gaps left out", pace.intervals().low() * kMs,
                           pace.intervals().high() * kMs));
  return report::FigureTable(rows);
}

std::string LossSection(const Measurement& measured, const Circumstances& about) {
  const FramePace& pace = measured.pace();
  const TrackerCounts& counts = measured.counts();
  Rows rows = {
      {"Missing frames",
       pace.HasPace()
           ? Format("%s of %s (%.3g %%)", Count(pace.Missing()).c_str(),
                    Count(pace.Missing() + pace.frames()).c_str(), pace.MissingShare() * 100)
           : "unknown: the frames keep no even pace"},
      {"Gaps", pace.gaps() == 0 ? "none: no interval of 1.5 periods or more"
                                : Format("%s intervals of 1.5 periods or more; the longest %.4g ms",
                                         Count(pace.gaps()).c_str(), pace.longestGap() * kMs)},
      {"Interruptions",
       pace.interruptions() == 0
           ? "none: no silence of more than 1 s and ten periods, and one writer only"
           : Format("%s, %.2f s in all", Count(pace.interruptions()).c_str(),
                    pace.interruptedSeconds())},
      {"Recoveries", counts.recoveries == 0 ? "none: the tracker was never lost"
                                            : Format("%s: the tracker was lost and came back",
                                                     Count(counts.recoveries).c_str())},
      {"Records that could not be used", Count(counts.dropped)},
      {"Reads without a record", Count(counts.failedReads)},
      {"Records lost at this program", Count(measured.lostHere())}};
  if (const double silence = SilenceAtTheEnd(measured, about); silence > 0) {
    rows.emplace_back("At the end", Format("no pose came in the last %.1f s", silence));
  }
  return report::FigureTable(rows);
}

std::string AgeRow(const char* what, const TimeHistogram& ages) {
  std::string row = "<tr><td>" + std::string(what) + "</td>";
  for (const double share : {0.5, 0.9, 0.99, 0.999}) {
    row += Format("<td class=\"number\">%.3f</td>", ages.Quantile(share) * kMsOfNs);
  }
  return row + Format("<td class=\"number\">%.3f</td></tr>\n", ages.spread().high() * kMsOfNs);
}

std::string AgeSection(const Measurement& measured) {
  if (measured.age().count() == 0) return "<p>No pose was awaited.</p>\n";
  return "<table><tr><th>in ms</th><th class=\"number\">median</th><th class=\"number\">90 %</th>"
         "<th class=\"number\">99 %</th><th class=\"number\">99.9 %</th>"
         "<th class=\"number\">most</th></tr>\n" +
         AgeRow("sample to publication", measured.toPublication()) +
         AgeRow("publication to this program", measured.toClient()) +
         AgeRow("<b>age at this program</b>", measured.age()) +
         "</table>\n<p>This program is a client of ordinary priority that waits for each pose. The "
         "time of a sample is the driver's best knowledge of when the device took it.</p>\n";
}

std::string ClockSection(const FramePace& pace) {
  const ClockFit clock = pace.Clock();
  if (!clock.known) {
    return "<p>Unknown: there were too few frames, or some are missing while others come in "
           "bunches.</p>\n";
  }
  Rows rows = {{"Frames of the device", Format("%.6f Hz, missing ones included", clock.hertz)}};
  rows.emplace_back(
      "Drift against the nominal rate",
      pace.KeepsNominal()
          ? Format("%+.1f ppm, give or take %.2g ppm", clock.partsPerMillion, clock.uncertainty)
      : pace.nominal() > 0 ? "not measured: the tracker does not keep its nominal rate"
                           : "unknown: the device states no rate");
  rows.emplace_back("Unevenness", Format("%.4g ms, standard deviation of the sample times from an "
                                         "even pace",
                                         clock.unevenness * kMs));
  return report::FigureTable(rows) +
         "<p>Method: the count of frames against this computer's clock. The stream carries no time "
         "stamps of the device's own.</p>\n";
}

// ---- Sensors -----------------------------------------------------------------------------------

std::string AxisRows(const std::string& sensor, const char* what, const char* unit,
                     const std::array<AxisNoise, 3>& axes, Held held, double factor) {
  std::string rows = "<tr><td>" + Escaped(sensor) + "</td><td>" + what + "</td>";
  if (held != Held::Still) {
    return rows + "<td colspan=\"4\">" +
           (axes[0].all().count() == 0 ? "not delivered"
            : held == Held::Moved      ? "the sensor was not held still"
                                       : "too few poses") +
           "</td></tr>\n";
  }
  for (const AxisNoise& axis : axes) {
    rows += Format("<td class=\"number\">%.4g</td>", axis.all().Deviation() * factor);
  }
  return rows + "<td>" + unit + "</td></tr>\n";
}

std::string NoiseSection(const Measurement& measured) {
  std::string table =
      "<table><tr><th>sensor</th><th></th><th class=\"number\">x</th><th class=\"number\">y</th>"
      "<th class=\"number\">z</th><th></th></tr>\n";
  std::uint64_t filtered = 0;
  std::string invalid;
  for (const auto& [number, sensor] : measured.sensors()) {
    const char* given = measured.run().sensor_names[number];
    const std::string name = std::to_string(number + 1) + (*given == '\0' ? "" : " ") + given;
    table += AxisRows(name, "position along", "mm", sensor.position(), sensor.PositionHeld(), kMs) +
             AxisRows("", "turn about", "°", sensor.turn(), sensor.TurnHeld(), kDegrees);
    filtered += sensor.filtered();
    if (sensor.withoutPosition() > 0 && sensor.withoutPosition() < sensor.poses()) {
      invalid += Format(" %s poses of sensor %u had no valid position.",
                        Count(sensor.withoutPosition()).c_str(), number + 1);
    }
  }
  table +=
      "</table>\n<p>Standard deviations over the whole time, along and about the axes of the "
      "tracker's frame. A sensor counts as held still if the means of its one-second sections lie "
      "within 1 mm or 0.1° of each other, or within what its noise explains (eight standard "
      "deviations of such a mean), and if its poses jump from one to the next as noise does.";
  if (filtered > 0) table += " The poses went through the filters of the tracker's program.";
  return table + invalid + "</p>\n";
}

// ---- Plots -------------------------------------------------------------------------------------

// Shares of a distribution in bars of equal width.
template <typename CountBelow>
std::string Distribution(const std::string& caption, const std::string& name, double low,
                         double high, double total, CountBelow below) {
  std::vector<report::Bar> bars;
  double most = 0;
  for (int i = 0; i < kBars; ++i) {
    const double from = low + (high - low) * i / kBars;
    const double to = low + (high - low) * (i + 1) / kBars;
    bars.push_back({from, to, 100 * (below(to) - below(from)) / total});
    most = std::max(most, bars.back().height);
  }
  return report::BarPlot(caption, {name, low, high}, {"share (%)", 0, std::max(1.05 * most, 0.1)},
                         bars);
}

std::string IntervalPlot(const FramePace& pace) {
  if (pace.intervals().count() < 100) return "";
  double low = pace.IntervalQuantile(0.001) * kMs;
  double high = pace.IntervalQuantile(0.999) * kMs;
  const double margin = std::max(0.05 * (high - low), 1e-4);
  low = std::max(low - margin, 0.0);
  high += margin;
  return Distribution("Time between frames; 99.8 % of the intervals, gaps left out.",
                      "time between frames (ms)", low, high,
                      static_cast<double>(pace.intervals().count()),
                      [&](double ms) { return pace.IntervalsBelow(ms / kMs); });
}

std::string AgePlot(const TimeHistogram& age) {
  if (age.count() < 100) return "";
  const double high = std::max(1.05 * age.Quantile(0.999) * kMsOfNs, 1e-3);
  return Distribution("Age of the poses at this program; up to the 99.9th percentile.",
                      "age of a pose (ms)", 0, high, static_cast<double>(age.count()),
                      [&](double ms) { return age.CountBelow(ms / kMsOfNs); });
}

std::string RunPlots(const Measurement& measured, const Circumstances& about) {
  const TimeLine& line = measured.timeLine();
  if (line.pieces().size() < 4) return "";
  std::vector<report::Point> rates, ages;
  double fastest = measured.pace().nominal(), oldest = 0;
  const double unit = about.watched < 300 ? 1 : 60;  // s of the axis
  // The last piece is not full.
  for (std::size_t i = 0; i + 1 < line.pieces().size(); ++i) {
    const double middle = (static_cast<double>(i) + 0.5) * line.pieceSeconds() / unit;
    const Piece& piece = line.pieces()[i];
    rates.push_back({middle, static_cast<double>(piece.frames) / line.pieceSeconds()});
    ages.push_back({middle, piece.worstAge * kMs});
    fastest = std::max(fastest, rates.back().y);
    oldest = std::max(oldest, ages.back().y);
  }
  const Axis time = {unit == 1 ? "time (s)" : "time (min)", 0,
                     static_cast<double>(line.pieces().size()) * line.pieceSeconds() / unit};
  const std::string step = Format("%g s", line.pieceSeconds());
  return report::CurvePlot("Frames that came in each " + step + ", per second.", time,
                           {"rate (Hz)", 0, std::max(1.1 * fastest, 1.0)}, rates) +
         report::CurvePlot("The oldest pose of each " + step + " when this program had it.", time,
                           {"age (ms)", 0, std::max(1.1 * oldest, 0.01)}, ages);
}

// ---- Circumstances -----------------------------------------------------------------------------

std::string SensorList(std::uint32_t mask) {
  std::string text;
  for (unsigned i = 0; i < kinetrel_stream_sensors; ++i) {
    if ((mask >> i & 1U) != 0) text += (text.empty() ? "" : ", ") + std::to_string(i + 1);
  }
  return text;
}

std::string Setting(const Measurement& measured, const Circumstances& about) {
  const kinetrel_run& run = measured.run();
  const SystemFacts& machine = about.machine;
  std::string delivers = (run.components & 1U) != 0 ? "position" : "";
  if ((run.components & 2U) != 0) delivers += delivers.empty() ? "angles" : ", angles";
  if ((run.components & 4U) != 0) delivers += delivers.empty() ? "quaternion" : ", quaternion";
  Rows rows = {{"Device", run.device_name},
               {"Driver", Format("number %d (option -d)", run.device_type)},
               {"Port", run.port > 0    ? Format("%d (option -p)", run.port)
                        : run.port == 0 ? "simulated"
                                        : "none"},
               {"Sensors", SensorList(run.sensor_mask)},
               {"Delivers", delivers},
               {"Azimuth zero", Format("%.3f°", run.azimuth_zero * kDegrees)},
               {"Slot", std::to_string(about.slot)},
               {"Sampling thread", about.priority},
               {"System", machine.system},
               {"Kernel", machine.kernel},
               {"Processor", machine.processor + Format(", %u in all", machine.processors)},
               {"Kinetrel", about.version}};
  return report::FigureTable(rows);
}

std::string EventSection(const Measurement& measured) {
  Rows rows;
  for (const Event& event : measured.events()) {
    rows.emplace_back(event.seconds < 0 ? "before" : Format("%.1f s", event.seconds), event.text);
  }
  std::string table = report::FigureTable(rows);
  if (measured.eventsLeftOut() > 0) {
    table += "<p>" + Count(measured.eventsLeftOut()) + " more are left out.</p>\n";
  }
  return table;
}

}  // namespace

std::string CertificatePage(const Measurement& measured, const Circumstances& about) {
  const std::string device = measured.hasRun() ? measured.run().device_name : "no tracker";
  std::string page =
      report::PageHead("What the tracker delivered",
                       device + ", slot " + std::to_string(about.slot) + ", from " + about.began +
                           Format(", %.1f of %.1f s. ", about.watched, about.asked) + about.ending);
  if (measured.pace().frames() < 2) {
    page += "<p class=\"verdict bad\"><b>Nothing to report.</b> Fewer than two poses came: " +
            Escaped(about.trackerState) + "</p>\n";
    if (measured.hasRun()) page += Section("Configuration and machine", Setting(measured, about));
    return page + Section("Events", EventSection(measured)) + report::PageEnd();
  }
  page += "<blockquote>" + Escaped(MethodsText(measured, about)) + "</blockquote>\n";
  page += Section("Rate and jitter", RateSection(measured.pace()) + IntervalPlot(measured.pace()));
  page += Section("Losses", LossSection(measured, about));
  page += Section("Age of the poses", AgeSection(measured) + AgePlot(measured.age()));
  page += Section("Clock", ClockSection(measured.pace()));
  page += Section("Static noise", NoiseSection(measured));
  page += Section("The time watched", RunPlots(measured, about));
  page += Section("Events", EventSection(measured));
  page += Section("Configuration and machine", Setting(measured, about));
  return page + report::PageEnd();
}

}  // namespace kinetrel::certify

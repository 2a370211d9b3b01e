#include "calibrate/report_page.h"

#include <algorithm>

#include "report/html_page.h"
#include "report/plot.h"

namespace kinetrel::calibrate {
namespace {

using report::Escaped;
using report::Format;
using report::kHeight;
using report::kWidth;
using report::Label;
using report::Picture;

constexpr double kMargin = 46;  // of a picture
constexpr std::size_t kMostBars = 120;

std::string Box(const char* kind, double x, double width, double height) {
  return Format("<rect class=\"%s\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\"/>\n", kind,
                x, kHeight - kMargin - height, width, height);
}

// ---- The size of each residual ---------------------------------------------------------------

struct Bar {
  std::string name;
  double after = 0.0;  // m
  double before = 0.0;
};

// Of many residuals, each bar is the largest of some neighbours.
std::vector<Bar> BarsOf(const std::vector<Residual>& residuals) {
  const std::size_t together = (residuals.size() + kMostBars - 1) / kMostBars;
  std::vector<Bar> bars;
  for (std::size_t i = 0; i < residuals.size(); ++i) {
    if (i % together == 0) bars.push_back({residuals[i].name});
    bars.back().after = std::max(bars.back().after, Length(residuals[i].off));
    bars.back().before = std::max(bars.back().before, residuals[i].before);
  }
  return bars;
}

std::string BarPicture(const std::vector<Residual>& residuals) {
  const std::vector<Bar> bars = BarsOf(residuals);
  double top = 1e-6;
  bool hasBefore = false;
  for (const Bar& bar : bars) {
    top = std::max({top, bar.after, bar.before});
    hasBefore = hasBefore || bar.before > 0.0;
  }
  const double step = (kWidth - 2 * kMargin) / static_cast<double>(bars.size());
  const double scale = (kHeight - 2 * kMargin) / top;
  std::string content;
  double x = kMargin;
  for (const Bar& bar : bars) {
    if (hasBefore) content += Box("before", x, 0.8 * step, scale * bar.before);
    content += Box("after", x + (hasBefore ? 0.2 * step : 0.0), (hasBefore ? 0.4 : 0.8) * step,
                   scale * bar.after);
    if (bars.size() <= 12) {
      content += Label(x + step / 2, kHeight - kMargin + 16, "middle", bar.name);
    }
    x += step;
  }
  content += Format("<line class=\"axis\" x1=\"%.0f\" y1=\"%.0f\" x2=\"%.0f\" y2=\"%.0f\"/>\n",
                    kMargin, kHeight - kMargin, kWidth - kMargin, kHeight - kMargin);
  content += Label(kMargin - 6, kMargin + 4, "end", Format("%.2f", top * 1e3));
  content += Label(kMargin - 6, kHeight - kMargin, "end", "0");
  content += Label(kMargin - 6, kMargin - 12, "start", "mm");
  return Picture(hasBefore
                     ? "Error of each point: without the calibration (wide), with it (narrow)."
                     : "Error of each point, in the order of measuring.",
                 content);
}

// ---- Where the residuals point ---------------------------------------------------------------

std::string ArrowPicture(const std::vector<Residual>& residuals, std::size_t up,
                         const char* words) {
  Vector3 low = residuals[0].place;
  Vector3 high = low;
  double longest = 1e-9;
  for (const Residual& residual : residuals) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
      low[axis] = std::min(low[axis], residual.place[axis]);
      high[axis] = std::max(high[axis], residual.place[axis]);
    }
    longest = std::max(longest, Length(residual.off));
  }
  const double size = std::max({high[0] - low[0], high[up] - low[up], 1e-6});
  const double scale = std::min((kWidth - 2 * kMargin) / std::max(high[0] - low[0], 1e-6),
                                (kHeight - 2 * kMargin) / std::max(high[up] - low[up], 1e-6));
  const double larger = 0.12 * size / longest;
  const std::size_t together = (residuals.size() + 999) / 1000;
  std::string content;
  for (std::size_t i = 0; i < residuals.size(); i += together) {
    const Residual& residual = residuals[i];
    const double x = kWidth / 2 + scale * (residual.place[0] - (low[0] + high[0]) / 2);
    const double y = kHeight / 2 - scale * (residual.place[up] - (low[up] + high[up]) / 2);
    content += Format(
        "<circle class=\"after\" cx=\"%.1f\" cy=\"%.1f\" r=\"2.5\"/>"
        "<line class=\"after\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n",
        x, y, x, y, x + scale * larger * residual.off[0], y - scale * larger * residual.off[up]);
  }
  return Picture(Format("%s The errors are drawn %.0f times as long as they are.", words, larger),
                 content);
}

}  // namespace

std::string ReportPage(const Finding& finding, const std::string& subtitle) {
  std::string page = report::PageHead(finding.title, subtitle);
  page += Format("<p class=\"verdict %s\"><b>%s.</b> ", GradeWord(finding.grade),
                 GradeWord(finding.grade)) +
          Escaped(finding.verdict) + "</p>\n" + report::FigureTable(finding.figures);
  if (!finding.residuals.empty()) {
    page += BarPicture(finding.residuals);
    page += ArrowPicture(finding.residuals, 1, "From above: x to the right, y up.");
    page += ArrowPicture(finding.residuals, 2, "From the side: x to the right, z up.");
  }
  if (finding.grade != Grade::Bad) {
    page += "<p>The filter: <code>" + Escaped(finding.filter) + "</code></p>\n";
  }
  return page + report::PageEnd();
}

}  // namespace kinetrel::calibrate

#include "report/plot.h"

#include <algorithm>
#include <cmath>

#include "report/html_page.h"

namespace kinetrel::report {
namespace {

constexpr double kLeft = 64;  // of the axes, in the picture
constexpr double kRight = kWidth - 16;
constexpr double kTop = 14;
constexpr double kBottom = kHeight - 46;

// 1, 2 or 5 times a power of ten, for about `count` steps.
double NiceStep(double span, int count) {
  const double raw = span / count;
  const double power = std::pow(10.0, std::floor(std::log10(raw)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (raw <= factor * power) return factor * power;
  }
  return 10.0 * power;
}

// As many digits as the step of an axis needs.
std::string TickText(double value, double step) {
  const int digits = std::clamp(static_cast<int>(std::ceil(-std::log10(step) - 1e-9)), 0, 9);
  return Format("%.*f", digits, std::abs(value) < step / 2 ? 0.0 : value);
}

class Frame {
 public:
  Frame(const Axis& x, const Axis& y) : x_(x), y_(y) {}

  double X(double value) const {
    return kLeft +
           (std::clamp(value, x_.low, x_.high) - x_.low) / (x_.high - x_.low) * (kRight - kLeft);
  }
  double Y(double value) const {
    return kBottom -
           (std::clamp(value, y_.low, y_.high) - y_.low) / (y_.high - y_.low) * (kBottom - kTop);
  }

  std::string Grid() const {
    std::string svg;
    const double step = NiceStep(y_.high - y_.low, 4);
    for (double at = std::ceil(y_.low / step) * step; at <= y_.high + 1e-9 * step; at += step) {
      svg += Line("grid", kLeft, Y(at), kRight, Y(at)) +
             Label(kLeft - 6, Y(at) + 4, "end", TickText(at, step));
    }
    return svg;
  }

  std::string Axes() const {
    std::string svg = Line("axis", kLeft, kBottom, kRight, kBottom);
    const double step = NiceStep(x_.high - x_.low, 8);
    for (double at = std::ceil(x_.low / step) * step; at <= x_.high + 1e-9 * step; at += step) {
      svg += Line("axis", X(at), kBottom, X(at), kBottom + 4) +
             Label(X(at), kBottom + 17, "middle", TickText(at, step));
    }
    svg += Label((kLeft + kRight) / 2, kHeight - 8, "middle", x_.name);
    return svg + Format(
                     "<text x=\"14\" y=\"%.1f\" text-anchor=\"middle\" "
                     "transform=\"rotate(-90 14 %.1f)\">%s</text>\n",
                     (kTop + kBottom) / 2, (kTop + kBottom) / 2, Escaped(y_.name).c_str());
  }

 private:
  static std::string Line(const char* kind, double x1, double y1, double x2, double y2) {
    return Format("<line class=\"%s\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", kind,
                  x1, y1, x2, y2);
  }

  Axis x_;
  Axis y_;
};

}  // namespace

std::string Picture(const std::string& caption, const std::string& content) {
  return Format("<figure><svg viewBox=\"0 0 %.0f %.0f\" role=\"img\">\n", kWidth, kHeight) +
         content + "</svg><figcaption>" + Escaped(caption) + "</figcaption></figure>\n";
}

std::string Label(double x, double y, const char* anchor, const std::string& text) {
  return Format("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\">%s</text>\n", x, y, anchor,
                Escaped(text).c_str());
}

std::string BarPlot(const std::string& caption, const Axis& x, const Axis& y,
                    const std::vector<Bar>& bars) {
  const Frame frame(x, y);
  std::string svg = frame.Grid();
  for (const Bar& bar : bars) {
    if (bar.to <= x.low || bar.from >= x.high || bar.height <= y.low) continue;
    const double left = frame.X(bar.from);
    const double top = frame.Y(bar.height);
    svg += Format(
        "<rect class=\"after\" stroke-width=\"0\" x=\"%.2f\" y=\"%.1f\" width=\"%.2f\" "
        "height=\"%.1f\"/>\n",
        left, top, frame.X(bar.to) - left, kBottom - top);
  }
  return Picture(caption, svg + frame.Axes());
}

std::string CurvePlot(const std::string& caption, const Axis& x, const Axis& y,
                      const std::vector<Point>& points) {
  const Frame frame(x, y);
  std::string svg = frame.Grid() + "<polyline class=\"curve\" points=\"";
  for (const Point& point : points) svg += Format("%.1f,%.1f ", frame.X(point.x), frame.Y(point.y));
  return Picture(caption, svg + "\"/>\n" + frame.Axes());
}

}  // namespace kinetrel::report

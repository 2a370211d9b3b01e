// Plots as SVG, in the style of the page.
#pragma once

#include <string>
#include <vector>

namespace kinetrel::report {

inline constexpr double kWidth = 720;  // of a picture, and its height
inline constexpr double kHeight = 260;

// `content` as a figure with a caption below.
std::string Picture(const std::string& caption, const std::string& content);

// A label at a place of the picture; anchor: start, middle or end.
std::string Label(double x, double y, const char* anchor, const std::string& text);

// The scale of one axis.
struct Axis {
  std::string name;  // with its unit
  double low = 0.0;
  double high = 1.0;  // above `low`
};

struct Point {
  double x = 0.0;
  double y = 0.0;
};

// A stretch of the x axis and the height of its bar.
struct Bar {
  double from = 0.0;
  double to = 0.0;
  double height = 0.0;
};

// What lies outside the axes is drawn at their edge; a bar there is left out.
std::string BarPlot(const std::string& caption, const Axis& x, const Axis& y,
                    const std::vector<Bar>& bars);
std::string CurvePlot(const std::string& caption, const Axis& x, const Axis& y,
                      const std::vector<Point>& points);

}  // namespace kinetrel::report

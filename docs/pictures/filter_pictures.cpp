// Draws what each filter does to a motion, with the filters themselves, as SVG files for
// docs/filters.md:
//
//   scripts/filter-pictures
//
// The motion is a simulated hand at 120 Hz, the same in every run.
#include <cstdio>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "filters/filter_option.h"
#include "filters/pose_pairs.h"
#include "filters/rigid_math.h"

namespace kinetrel {
namespace {

constexpr double kRate = 120.0;  // Hz
constexpr double kWidth = 720.0;
constexpr double kHeight = 240.0;
constexpr double kMargin = 30.0;

using Points = std::vector<std::array<double, 2>>;

struct Line {
  const char* name;
  const char* style;
  Points points;
};

constexpr const char* kTrue = "stroke:#999;stroke-width:3";
constexpr const char* kDevice = "stroke:#c07a00;stroke-width:1";
constexpr const char* kFiltered = "stroke:#1f6fb4;stroke-width:1.6";

// A point that is not a number interrupts its line.
void Draw(const std::string& path, const char* title, const std::vector<Line>& lines) {
  std::array<double, 2> low = {1e9, 1e9};
  std::array<double, 2> high = {-1e9, -1e9};
  for (const Line& line : lines) {
    for (const auto& point : line.points) {
      for (std::size_t i = 0; i < 2; ++i) {
        if (!std::isfinite(point[i])) continue;
        low[i] = std::min(low[i], point[i]);
        high[i] = std::max(high[i], point[i]);
      }
    }
  }
  std::ofstream file(path);
  file << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << kWidth << ' ' << kHeight
       << "\" font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"100%\" height=\"100%\" "
          "fill=\"#fff\"/>\n<text x=\"30\" y=\"18\">"
       << title << "</text>\n";
  double labelAt = kMargin;
  for (const Line& line : lines) {
    file << "<path style=\"fill:none;" << line.style << "\" d=\"";
    bool begun = false;
    for (const auto& point : line.points) {
      if (!std::isfinite(point[1])) {
        begun = false;
        continue;
      }
      char text[48];
      std::snprintf(
          text, sizeof text, "%c%.1f %.1f", begun ? 'L' : 'M',
          kMargin + (kWidth - 2 * kMargin) * (point[0] - low[0]) / (high[0] - low[0]),
          kHeight - kMargin - (kHeight - 2 * kMargin) * (point[1] - low[1]) / (high[1] - low[1]));
      file << text;
      begun = true;
    }
    file << "\"/>\n<path style=\"" << line.style << "\" d=\"M" << labelAt << ' ' << kHeight - 12
         << "h24\"/><text x=\"" << labelAt + 30 << "\" y=\"" << kHeight - 8 << "\">" << line.name
         << "</text>\n";
    labelAt += 220;
  }
  file << "</svg>\n";
}

PoseSample HandAt(double seconds) {
  const auto wave = [seconds](double hz, double phase) {
    return std::sin(2.0 * kPi * hz * seconds + phase);
  };
  PoseSample sample;
  sample.timeNs = 1'000'000'000 + static_cast<std::int64_t>(seconds * 1e9);
  sample.position = {0.25 * wave(0.4, 0.0) + 0.05 * wave(1.7, 1.0),
                     0.15 * wave(0.7, 0.5) + 0.03 * wave(1.5, 2.0), 0.20 * wave(0.5, 1.5)};
  sample.orientation = FromAngles({0.6 * wave(0.6, 0.3), 0.3 * wave(0.9, 1.1), 0.0});
  sample.hasPosition = sample.hasOrientation = true;
  return sample;
}

std::unique_ptr<Filter> Make(const std::string& text) {
  std::string error;
  std::unique_ptr<Filter> filter = MakeFilter(text, error);
  if (filter == nullptr) throw std::runtime_error(error);
  return filter;
}

// One coordinate over time: what is true (some time ahead), what the device sent, what came out.
struct Story {
  const char* file;
  const char* title;
  const char* filter;
  double seconds;
  double noise;                                // m
  double ahead;                                // s
  std::function<void(int, PoseSample&)> harm;  // changes what the device sends; may be empty
  bool rests;                                  // for the first half
};

void Tell(const Story& story, const std::string& folder) {
  const auto filter = Make(story.filter);
  std::mt19937 random(5);
  std::normal_distribution<double> noise(0.0, story.noise);
  Line truth{"true", kTrue, {}};
  Line device{"from the device", kDevice, {}};
  Line filtered{"filtered", kFiltered, {}};
  for (int i = 0; i < static_cast<int>(story.seconds * kRate); ++i) {
    const double now = i / kRate;
    const auto moving = [&](double at) {
      return story.rests ? std::max(at - story.seconds / 2, 0.0) : at;
    };
    PoseSample sample = HandAt(moving(now));
    sample.timeNs = 1'000'000'000 + static_cast<std::int64_t>(now * 1e9);
    for (double& part : sample.position) part += noise(random);
    if (story.harm) story.harm(i, sample);
    device.points.push_back({now, sample.hasPosition ? sample.position[0] : NAN});
    filter->FilterSample(sample);
    truth.points.push_back({now, HandAt(moving(now + story.ahead)).position[0]});
    filtered.points.push_back({now, sample.hasPosition ? sample.position[0] : NAN});
  }
  if (story.ahead > 0.0) truth.name = "true, 30 ms later";
  Draw(folder + "/filter-" + story.file + ".svg", story.title, {truth, device, filtered});
}

// ---- From above --------------------------------------------------------------------------------

void DrawRigid(const std::string& folder) {
  const auto filter = Make("rigid:translation-m=0.8/0.1/0,rotation-deg=40/0/0,tip-m=0.1/0/0");
  Line device{"from the device", kDevice, {}};
  Line filtered{"filtered", kFiltered, {}};
  for (int i = 0; i < 300; ++i) {
    PoseSample sample = HandAt(i / kRate);
    device.points.push_back({sample.position[0], sample.position[1]});
    filter->FilterSample(sample);
    filtered.points.push_back({sample.position[0], sample.position[1]});
  }
  Draw(folder + "/filter-rigid.svg",
       "rigid: shifted, turned, and the tip in place of the sensor; from above",
       {device, filtered});
}

Vector3 Bent(const Vector3& truth) {
  const Vector3 off = Vector3{1.3, 1.2, 0.0} - truth;
  return truth + (0.12 / (0.5 + Dot(off, off))) * off;
}

void DrawMap(const std::string& folder) {
  const std::string file = folder + "/map-points.part";
  PosePairTable table;
  for (int i = 0; i < 200; ++i) {
    const Vector3 truth = {i % 5 / 2.0 - 1.0, i / 5 % 5 / 2.0 - 1.0, i / 25 / 3.5 - 1.0};
    table.pairs.push_back({Bent(truth), truth, kNoRotation, kNoRotation, 0, ""});
  }
  {
    std::ofstream to(file);
    WritePosePairs(to, table);
  }
  const auto filter = Make("map:file=" + file);
  std::remove(file.c_str());
  Line truth{"true", kTrue, {}};
  Line device{"from the device", kDevice, {}};
  Line filtered{"filtered", kFiltered, {}};
  for (int row = 0; row < 14; ++row) {
    for (int i = 0; i <= 40; ++i) {
      const double across = row % 7 / 3.5 - 6.0 / 7.0;
      const double along = i / 24.0 - 5.0 / 6.0;
      const Vector3 at = row < 7 ? Vector3{along, across, 0.1} : Vector3{across, along, 0.1};
      PoseSample sample = HandAt(0.0);
      sample.position = Bent(at);
      truth.points.push_back({at[0], at[1]});
      device.points.push_back({sample.position[0], sample.position[1]});
      filter->FilterSample(sample);
      filtered.points.push_back({sample.position[0], sample.position[1]});
    }
    for (Line* const line : {&truth, &device, &filtered}) line->points.push_back({0.0, NAN});
  }
  Draw(folder + "/filter-map.svg", "map: straight lines near metal; from above",
       {truth, device, filtered});
}

void DrawAll(const std::string& folder) {
  const Story stories[] = {
      {"one-euro",
       "one-euro: one coordinate, at rest and then in motion",
       "one-euro",
       0.8,
       1e-3,
       0.0,
       {},
       true},
      {"predict",
       "predict: one coordinate, 30 ms ahead",
       "predict:horizon-ms=30",
       1.5,
       5e-4,
       0.030,
       {},
       false},
      {"gate", "gate: leaps of one coordinate", "gate", 1.5, 5e-4, 0.0,
       [](int i, PoseSample& sample) {
         if (i % 37 == 20) sample.position[0] += i % 2 == 0 ? 0.2 : -0.2;
       },
       false},
      {"dropout", "dropout: one coordinate, extrapolated for 0.1 s while the sensor is lost",
       "dropout:instead=extrapolate,time-s=0.1", 1.5, 0.0, 0.0,
       [](int i, PoseSample& sample) {
         if ((i > 40 && i < 50) || (i > 100 && i < 125))
           sample.hasPosition = sample.hasOrientation = false;
       },
       false},
  };
  for (const Story& story : stories) Tell(story, folder);
  DrawRigid(folder);
  DrawMap(folder);
}

}  // namespace
}  // namespace kinetrel

int main(int count, char** arguments) {
  try {
    kinetrel::DrawAll(count > 1 ? arguments[1] : ".");
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "filter-pictures: %s\n", error.what());
    return 1;
  }
}

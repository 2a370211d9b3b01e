// What an offset filter adds to the arithmetic that it cannot do without, and what every other
// filter takes for a pose.
#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>

#include "bench/harness.h"
#include "filters/filter_option.h"
#include "filters/offset_filter.h"
#include "filters/pose_pairs.h"
#include "filters/rigid_math.h"

namespace kinetrel::bench {
namespace {

constexpr int kCycles = 1000;
constexpr int kBlockSize = 5000;

constexpr float kOffset[3] = {0.3F, -0.2F, 0.1F};

// The product of two quaternions, and its length made 1.
void BareTurn(float q[4], const float r[4]) {
  const float w = q[0] * r[0] - q[1] * r[1] - q[2] * r[2] - q[3] * r[3];
  const float x = q[0] * r[1] + q[1] * r[0] + q[2] * r[3] - q[3] * r[2];
  const float y = q[0] * r[2] - q[1] * r[3] + q[2] * r[0] + q[3] * r[1];
  const float z = q[0] * r[3] + q[1] * r[2] - q[2] * r[1] + q[3] * r[0];
  const float length = std::sqrt(w * w + x * x + y * y + z * z);
  q[0] = w / length;
  q[1] = x / length;
  q[2] = y / length;
  q[3] = z / length;
}

// Each pose continues from the one before, so that the compiler removes no call.
void Poses(Report& report) {
  const Quaternion turn = EulerToQuaternion(kOffset);
  Quaternion bare = kIdentityQuaternion;
  OffsetFilter filter;
  filter.SetPositionOffset(kOffset);
  filter.SetEulerOffset(kOffset);
  Pose pose{};
  Quaternion turned = kIdentityQuaternion;
  const std::vector<Paired> time =
      Interleave(kCycles, TimedBlock(kBlockSize, [&] { BareTurn(bare.data(), turn.data()); }),
                 TimedBlock(kBlockSize, [&] { filter.SetPose(pose.data(), turned.data()); }));
  report.Ratio("a pose through an offset filter", time[0], "ns", 3);
  // Read at the end, so that the compiler removes nothing.
  if (!std::isfinite(bare[0]) || !std::isfinite(turned[0])) report.Note("not a rotation any more");
}

// A sensor that turns and moves on a circle, 120 poses a second.
class Circle {
 public:
  PoseSample Next() {
    at_ = at_ + 1 < kPoses ? at_ + 1 : 0;
    PoseSample sample = poses_[at_];
    sample.timeNs = time_ += 8'333'333;
    return sample;
  }

 private:
  static constexpr std::size_t kPoses = 256;
  std::vector<PoseSample> poses_ = [] {
    std::vector<PoseSample> poses(kPoses);
    for (std::size_t i = 0; i < kPoses; ++i) {
      const double angle = 2 * kPi * static_cast<double>(i) / kPoses;
      poses[i].position = {0.3 * std::cos(angle), 0.3 * std::sin(angle), 0.1};
      poses[i].orientation = FromAngles({angle, 0.2, 0.1});
      poses[i].hasPosition = poses[i].hasOrientation = true;
    }
    return poses;
  }();
  std::size_t at_ = 0;
  std::int64_t time_ = 0;
};

// A file with measured and true poses at random places in the sensor's room.
class MapFile {
 public:
  explicit MapFile(int points) {
    PosePairTable table;
    table.hasOrientations = true;
    std::mt19937 random(1);
    std::uniform_real_distribution<double> place(-0.5, 0.5);
    for (int i = 0; i < points; ++i) {
      const Vector3 truth = {place(random), place(random), place(random)};
      const Vector3 bend = {0.1 * truth[0] * truth[1], 0.1 * std::sin(3 * truth[2]), 0.0};
      table.pairs.push_back({truth + bend, truth, FromTurn(bend), kNoRotation, 0, ""});
    }
    std::ofstream file(kPath);
    WritePosePairs(file, table);
  }
  ~MapFile() { std::remove(kPath); }

  static constexpr const char* kPath = "bench-filters-map.csv";
};

// The floor is the same way through a rigid transform that changes nothing; its time is printed.
void Samples(Report& report) {
  std::string error;
  Circle circle;
  double sink = 0.0;
  const auto through = [&](Filter& filter) {
    return TimedBlock(kBlockSize, [&] {
      PoseSample sample = circle.Next();
      filter.FilterSample(sample);
      sink += sample.position[0];
    });
  };
  const std::unique_ptr<Filter> nothing = MakeFilter("rigid", error);
  const auto measure = [&](const char* name, Filter& filter, double limit) {
    const Paired time = Interleave(kCycles / 4, through(*nothing), through(filter))[0];
    report.Note(std::string(name) + ": " + std::to_string(time.ratio.middle) +
                " x a rigid transform");
    report.AtMost(std::string("a pose through ") + name, time.subject, "ns", limit);
  };
  for (const char* text :
       {"rigid:tip-m=0.1/0/0,rotation-deg=1/2/3", "one-euro", "predict", "gate", "dropout"}) {
    const std::unique_ptr<Filter> filter = MakeFilter(text, error);
    measure(text, *filter, 150.0);
  }
  const MapFile points(500);
  for (const char* model : {"multiquadric", "polynomial"}) {
    const std::string text = std::string("map:file=") + MapFile::kPath + ",model=" + model;
    const std::unique_ptr<Filter> map = MakeFilter(text, error);
    measure((std::string(model) + " of 500 points").c_str(), *map, 2000.0);
  }
  if (!std::isfinite(sink)) report.Note("not a position any more");
}

void All(Report& report) {
  Poses(report);
  Samples(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-filters", kinetrel::bench::All); }

// What an offset filter adds to the arithmetic that it cannot do without.
#include <cmath>

#include "bench/harness.h"
#include "filters/offset_filter.h"

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

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-filters", kinetrel::bench::Poses); }

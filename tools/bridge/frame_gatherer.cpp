#include "bridge/frame_gatherer.h"

namespace kinetrel::bridge {
namespace {

// Longer than a frame of the slowest tracker takes from its first sensor to its last.
constexpr std::int64_t kLongestFrameNs = 100'000'000;

// An older frame was held up together with the whole bridge, and is not sent.
constexpr std::int64_t kTooOldNs = 350'000'000;

}  // namespace

void FrameGatherer::SetState(const SourceState& state) {
  expected_ = 0;
  for (const unsigned sensor : feed_.selector.sensors()) {
    expected_ |= state.run.sensor_mask & 1U << sensor;
  }
  if (state.Delivers()) return;
  Clear();
  joined_ = false;
}

void FrameGatherer::Add(std::span<const Pose> poses) {
  for (const Pose& pose : poses) {
    const std::uint32_t bit = 1U << pose.sensor;
    if (!poses_.empty() && (pose.frame != poses_[0].frame || (present_ & bit) != 0)) {
      Flush(pose.sampleNs);
    }
    poses_.push_back(pose);
    present_ |= bit;
    if (IsWhole()) Flush(pose.sampleNs);
  }
}

void FrameGatherer::Tick(std::int64_t nowNs) {
  if (!poses_.empty() && nowNs - poses_[0].sampleNs > kLongestFrameNs) Flush(nowNs);
}

void FrameGatherer::Flush(std::int64_t nowNs) {
  if (poses_.empty()) return;
  const bool isNew = nowNs - poses_[0].sampleNs <= kTooOldNs;
  if (isNew && (joined_ || IsWhole())) finish_(poses_);
  joined_ = true;
  Clear();
}

void FrameGatherer::Clear() {
  poses_.clear();
  present_ = 0;
}

}  // namespace kinetrel::bridge

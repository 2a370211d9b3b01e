// Poses from a recording.
#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <utility>

#include "emulate/pose_feed.h"
#include "recording/paced_frames.h"

namespace kinetrel::emulate {
namespace {

std::int64_t NowNs() {
  return static_cast<std::int64_t>(static_cast<double>(ClockTicks()) * 1e9 /
                                   static_cast<double>(ClockTicksPerSecond()));
}

template <std::size_t Count>
std::optional<std::array<double, Count>> IfValid(const std::array<double, Count>& values) {
  const bool valid = std::ranges::all_of(values, [](double value) { return std::isfinite(value); });
  return valid ? std::optional(values) : std::nullopt;
}

class RecordingSource final : public PoseSource {
 public:
  RecordingSource(std::string file, std::unique_ptr<record::RecordedFrames> frames,
                  record::Pace pace, std::shared_ptr<LiveMotion> motion)
      : file_(std::move(file)),
        frames_(std::move(frames)),
        paced_(*frames_, pace),
        motion_(std::move(motion)),
        rate_(paced_.Rate()) {
    std::uint32_t sensors = 0;
    for (const int sensor : frames_->sensors()) sensors |= 1U << static_cast<unsigned>(sensor - 1);
    motion_->SetSensors(sensors);
    news_ = motion_->map().Tell(file_ + ": a recording of " + frames_->DeviceName(), sensors);
    if (!frames_->otherSlots().empty()) {
      news_ += "; it has other trackers too, which --from-slot chooses";
    }
    if (!frames_->whole()) news_ += "; the file was cut, and is played up to there";
  }

  std::uint32_t Next(Milliseconds patience) override {
    std::uint32_t stations = 0;
    if (const record::RecordedFrame* const frame = paced_.Next(patience)) {
      for (const record::RecordedPose& pose : frame->poses) {
        const LivePose live = {.position = IfValid(pose.position),
                               .orientation = IfValid(pose.orientation),
                               .buttons = pose.buttons.value_or(0)};
        stations |= motion_->Put(static_cast<unsigned>(pose.sensor - 1), live, NowNs());
      }
    }
    motion_->ForgetSilent(NowNs(), rate_);
    if (paced_.ended() && !std::exchange(ended_, true)) TellEnd();
    return stations;
  }

  bool IsKnown() const override { return true; }
  std::string TakeNews() override { return std::exchange(news_, {}); }

 private:
  void TellEnd() {
    motion_->ForgetAll();
    news_ = file_ + ": the recording has ended; no station has a pose";
    if (const std::uint64_t damaged = frames_->damaged(); damaged > 0) {
      news_ += "; " + std::to_string(damaged) + " damaged parts of the file were left out";
    }
  }

  const std::string file_;
  const std::unique_ptr<record::RecordedFrames> frames_;
  record::PacedFrames paced_;
  const std::shared_ptr<LiveMotion> motion_;
  const double rate_;  // Hz of each sensor; 0: not known
  bool ended_ = false;
  std::string news_;
};

}  // namespace

MadeSource MakeRecordingSource(const std::string& file, int slot, record::Pace pace,
                               std::shared_ptr<LiveMotion> motion) {
  auto frames = std::make_unique<record::RecordedFrames>();
  if (const std::string complaint = frames->Open(file, slot); !complaint.empty()) {
    return {nullptr, file + ": " + complaint};
  }
  return {std::make_unique<RecordingSource>(file, std::move(frames), pace, std::move(motion))};
}

}  // namespace kinetrel::emulate

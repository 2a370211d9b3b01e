#include "recording/paced_frames.h"

#include <algorithm>
#include <cmath>

namespace kinetrel::record {
namespace {

double Now() {
  return static_cast<double>(ClockTicks()) / static_cast<double>(ClockTicksPerSecond());
}

}  // namespace

const RecordedFrame* PacedFrames::Next(Milliseconds patience) {
  if (!Fetch()) {
    ended_ = true;
    resolution_.Sleep(patience);
    return nullptr;
  }
  const double wait = due_ - Now();
  const double longest = static_cast<double>(patience.count()) * 1e-3;
  if (wait > 0) {
    resolution_.Sleep(Milliseconds(std::llround(std::min(wait, longest) * 1000)));
  }
  if (wait > longest) return nullptr;
  waits_ = false;
  ++played_;
  return &frame_;
}

bool PacedFrames::Fetch() {
  constexpr double kShortest =
      0.001;  // s, so that a loop over one frame leaves the processor alone
  constexpr double kLongest = 1.0;
  if (waits_) return true;
  if (ended_) return false;
  if (!frames_.Next(frame_)) {
    if (!pace_.loop || played_ == 0) return false;
    frames_.Rewind();
    if (!frames_.Next(frame_)) return false;
    firstUtc_ = frame_.utcNs;
    began_ = due_ + std::clamp(period_, kShortest, kLongest);
  } else if (!begun_) {
    begun_ = true;
    firstUtc_ = frame_.utcNs;
    began_ = due_ = Now();
  }
  waits_ = true;
  const auto since = static_cast<std::int64_t>(frame_.utcNs - firstUtc_);
  const double due = began_ + static_cast<double>(since) * 1e-9 / pace_.speed;
  if (due > due_) period_ = due - due_;
  due_ = due;
  return true;
}

double PacedFrames::Rate() { return frames_.NominalRate() * pace_.speed; }

}  // namespace kinetrel::record

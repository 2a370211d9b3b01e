#include "watch/frame_follower.h"

#include <algorithm>

namespace kinetrel::watch {
namespace {

// Of the rate, in seconds.
constexpr double kWindow = 2;
constexpr double kLeastSpan = 0.5;
constexpr double kMarkDistance = 0.05;

// Unsigned, because the count may wrap around.
std::int32_t Advance(std::int32_t from, std::int32_t to) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(to) -
                                   static_cast<std::uint32_t>(from));
}

// Longer than any healthy writer holds the mutex; shorter than a person notices.
constexpr Milliseconds kCopyPatience{250};

// Slower than the slowest tracker.
constexpr double kSilenceSeconds = 2;

}  // namespace

FrameFollower::FrameFollower(int slot, int bin) : reader_(slot - 1) {
  now_.slot = slot;
  now_.bin = bin;
  InitializeBlock(now_.block, false);
}

Status FrameFollower::Open() {
  if (!reader_.OpenOnly(now_.bin)) {
    const Status& why = reader_.failure();
    return why.Ok() ? Status{Error::Failed, 0, "opening shared memory"} : why;
  }
  TakeNewest();
  quietSince_ = timer_.ElapsedSeconds();
  JudgeState(false);
  return {};
}

bool FrameFollower::Next(Milliseconds patience) {
  const Deadline end(patience);
  const int before = last_;
  reader_.WaitForFrame(last_, patience);
  const bool frame = TakeNewest();
  JudgeState(frame);
  // A wait may end early without a frame: the mutex is held, or another process sets the event.
  // That must not become a loop without a rest.
  if (last_ == before) SleepFor(end.Remaining());
  return frame;
}

// Takes the newest block; true if it is a new frame. A count of 0 is a writer that has started
// again and published nothing yet.
bool FrameFollower::TakeNewest() {
  if (!reader_.Copy(now_.block, kCopyPatience)) return false;
  const bool frame = inStep_ && now_.block.frameCount != last_ && now_.block.frameCount != 0;
  last_ = now_.block.frameCount;
  inStep_ = true;
  return frame;
}

void FrameFollower::JudgeState(bool frame) {
  const double now = timer_.ElapsedSeconds();
  const bool present = now_.block.writerPresent != 0;
  const bool arrived = present && !writerPresent_;
  if (arrived) framesSeen_ = false;
  if (arrived || frame) quietSince_ = now;
  writerSeen_ = writerSeen_ || present || frame;
  framesSeen_ = framesSeen_ || frame;
  writerPresent_ = present;

  now_.silence = now - quietSince_;
  if (!present) {
    now_.state = writerSeen_ ? TrackerState::Gone : TrackerState::Awaited;
  } else if (now_.silence >= kSilenceSeconds) {
    now_.state = TrackerState::Silent;
  } else {
    now_.state = framesSeen_ ? TrackerState::Running : TrackerState::Starting;
  }
}

// ---- RateMeter ----------------------------------------------------------------------------------

void RateMeter::Add(double now, std::int32_t count) {
  if (used_ > 0 && Advance(newest_.count, count) < 0) used_ = 0;
  newest_ = {now, count};
  // Two old marks: the second alone spans the window.
  while (used_ >= 2 && marks_[1].time <= now - kWindow) DropOldest();
  if (used_ > 0 && now - marks_[used_ - 1].time < kMarkDistance) return;
  if (used_ == marks_.size()) DropOldest();
  marks_[used_++] = newest_;
}

void RateMeter::DropOldest() {
  std::copy(marks_.begin() + 1, marks_.begin() + static_cast<std::ptrdiff_t>(used_),
            marks_.begin());
  --used_;
}

std::optional<double> RateMeter::PerSecond() const {
  if (used_ == 0 || newest_.time - marks_[0].time < kLeastSpan) return {};
  return Advance(marks_[0].count, newest_.count) / (newest_.time - marks_[0].time);
}

}  // namespace kinetrel::watch

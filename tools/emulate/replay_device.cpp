#include "emulate/replay_device.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

namespace kinetrel::emulate {
namespace {

using mcap::TopicKind;
using std::chrono::milliseconds;

constexpr std::size_t kMostAsked = 4096;  // bytes of a host that asks what the capture has not
constexpr Moment kHostPatience = milliseconds(2000);  // for a question that is due
constexpr Moment kRatePatience = milliseconds(1000);  // for a rate that is due
constexpr Moment kQuestionEnds = milliseconds(20);    // a pause ends the host's question
constexpr Moment kLongestEarly = milliseconds(1000);  // for a question that came before its time
constexpr Moment kSearchEvery = milliseconds(200);
constexpr Moment kBriefClosing = milliseconds(50);  // which the port may not notice
constexpr Moment kLastReads = milliseconds(250);    // for the host, before the port disappears
constexpr double kLongestAway = 86400;              // s
constexpr Moment kStepLater = milliseconds(1);
constexpr int kMostStepsAtOnce = 1000;

std::string Seconds(Moment time) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.3f s", static_cast<double>(time.count()) * 1e-9);
  return text.data();
}

bool BeginsWith(std::span<const std::byte> bytes, std::span<const std::byte> beginning) {
  return bytes.size() >= beginning.size() &&
         std::ranges::equal(bytes.first(beginning.size()), beginning);
}

}  // namespace

ReplayDevice::ReplayDevice(CapturedLine capture, ReplayOptions options)
    : capture_(std::move(capture)), options_(options) {}

std::string ReplayDevice::Name() const {
  const std::string device = capture_.Device();
  return device.empty() ? "a captured device" : "a captured " + device;
}

void ReplayDevice::PowerOn(Moment now, DeviceLine&) {
  Rewind();
  Pass(now);
  asked_.clear();
  endTold_ = false;
  wake_ = now;
}

// ---- The host ----------------------------------------------------------------------------------

void ReplayDevice::Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) {
  if (asked_.empty()) askedAt_ = now;
  heardAt_ = now;
  const std::size_t room = kMostAsked - asked_.size();
  const auto taken = bytes.first(std::min(bytes.size(), room));
  asked_.insert(asked_.end(), taken.begin(), taken.end());
  Walk(now, line);
}

void ReplayDevice::HostOpened(Moment now, DeviceLine& line) {
  unplugged_ = false;
  // A closing so brief that it is noticed only after the capture has gone on.
  const bool late = openedAt_ != Moment(0) && now < openedAt_ + kLongestEarly / 2;
  if (!late) {
    reopened_ = true;
    reopenedAt_ = now;
    asked_.clear();
  }
  Walk(now, line);
}

void ReplayDevice::HostRateChanged(Moment now, unsigned baud, DeviceLine& line) {
  hostBaud_ = baud;
  Walk(now, line);
}

void ReplayDevice::OnEvent(Moment now, DeviceLine& line) { Walk(now, line); }

// ---- The capture -------------------------------------------------------------------------------

Moment ReplayDevice::DueOf(Moment time) const {
  const auto since = static_cast<double>((time - captured_).count()) / options_.speed;
  constexpr double kLongest = 1e17;  // ns; about three years
  return replayed_ + Moment(static_cast<std::int64_t>(std::clamp(since, -kLongest, kLongest)));
}

void ReplayDevice::Fetch() {
  next_ = heldBack_ ? std::exchange(heldBack_, std::nullopt) : capture_.Next();
}

// The opening is missing when the first parts of the capture did not fit or are damaged. The device
// waits for the host all the same.
void ReplayDevice::Rewind() {
  capture_.Rewind();
  heldBack_.reset();
  Fetch();
  if (!next_ || next_->kind == TopicKind::LineOpened) return;
  heldBack_ = std::move(next_);
  next_ = LineStep{.kind = TopicKind::LineOpened, .time = heldBack_->time, .bytes = {}};
}

// The capture goes on from its next step at this moment.
void ReplayDevice::Pass(Moment now) {
  if (!next_) return;
  captured_ = next_->time;
  replayed_ = now;
}

void ReplayDevice::WakeAt(Moment when) { wake_ = std::min(wake_, when); }

std::string ReplayDevice::Place() const {
  return next_ ? "at " + Seconds(next_->time) + " of the capture" : "after the capture";
}

void ReplayDevice::Walk(Moment now, DeviceLine& line) {
  wake_ = kNever;
  if (reopened_ && (!next_ || now > reopenedAt_ + kLongestEarly)) {
    line.Say(now, "the host opened the port anew: the capture begins anew");
    Restart(now, line);
  }
  for (int i = 0; next_; ++i) {
    if (i == kMostStepsAtOnce) return WakeAt(now + kStepLater);
    if (TryStep(now, line) == Progress::Waits) break;
  }
  if (!next_) End(now, line);
  if (reopened_) WakeAt(reopenedAt_ + kLongestEarly + kStepLater);
  if (!asked_.empty() && (!next_ || now > askedAt_ + kLongestEarly)) {
    FindQuestion(now, line);
  } else if (!asked_.empty()) {
    WakeAt(askedAt_ + kLongestEarly + kStepLater);
  }
  wake_ = std::max(wake_, now + Moment(1));
}

ReplayDevice::Progress ReplayDevice::TryStep(Moment now, DeviceLine& line) {
  const bool settled = rateDue_ == capturedBaud_ || next_->kind == TopicKind::LineSettings;
  if (!settled && TryRate(now) == Progress::Waits) return Progress::Waits;
  switch (next_->kind) {
    case TopicKind::LineSent:
      return TryQuestion(now, line);
    case TopicKind::LineOpened:
      return TryOpening(now);
    case TopicKind::LineSettings:
      rateDue_ = next_->number;
      rateTime_ = next_->time;
      Fetch();
      return Progress::Passed;
    default:
      break;
  }
  const Moment due = DueOf(next_->time);
  if (due > now) {
    WakeAt(due);
    return Progress::Waits;
  }
  switch (next_->kind) {
    case TopicKind::LineReceived:
      line.SendReply(due, next_->bytes);
      break;
    case TopicKind::LineLost:
      PullPlug(now, line);
      return Progress::Passed;
    case TopicKind::LineClosed:
      closedTime_ = next_->time;
      break;
    default:
      line.Say(now, Place() + ": the capture lacks " + std::to_string(next_->number) +
                        " parts that did not fit then");
  }
  Fetch();
  return Progress::Passed;
}

ReplayDevice::Progress ReplayDevice::TryQuestion(Moment now, DeviceLine& line) {
  const std::vector<std::byte>& expected = next_->bytes;
  if (BeginsWith(asked_, expected)) {
    asked_.erase(asked_.begin(), asked_.begin() + static_cast<std::ptrdiff_t>(expected.size()));
    askedAt_ = now;
    Pass(now);
    Fetch();
    return Progress::Passed;
  }
  if (BeginsWith(expected, asked_)) {
    const Moment until = std::max(DueOf(next_->time), heardAt_) + kHostPatience;
    if (now < until || unplugged_) {
      if (!unplugged_) WakeAt(until);
      return Progress::Waits;
    }
    line.Say(now, Place() + ": the host does not send " + ShowBytes(expected) +
                      "; the replay goes on without it");
    Pass(now);
    Fetch();
    return Progress::Passed;
  }
  if (now < heardAt_ + kQuestionEnds) {
    WakeAt(heardAt_ + kQuestionEnds);
    return Progress::Waits;
  }
  const Moment before = next_->time;
  FindQuestion(now, line);
  return next_ && next_->time != before ? Progress::Passed : Progress::Waits;
}

ReplayDevice::Progress ReplayDevice::TryOpening(Moment now) {
  const bool brief = closedTime_ != Moment(0) && next_->time - closedTime_ < kBriefClosing;
  const bool there = reopened_ || (brief && !unplugged_ && DueOf(next_->time) <= now);
  if (!there && (asked_.empty() || unplugged_)) {
    if (brief) WakeAt(std::max(DueOf(next_->time), now + kStepLater));
    return Progress::Waits;
  }
  reopened_ = false;
  openedAt_ = now;
  Pass(now);
  Fetch();
  return Progress::Passed;
}

// Some devices restart when the host changes its rate, so what follows belongs to the change. Of
// several changes in a row the port shows the last one only.
ReplayDevice::Progress ReplayDevice::TryRate(Moment now) {
  const bool same = rateDue_ == capturedBaud_ || rateDue_ == hostBaud_ || hostBaud_ == 0;
  const Moment until = DueOf(rateTime_) + kRatePatience;
  if (!same && asked_.empty() && now < until) {
    WakeAt(until);
    return Progress::Waits;
  }
  if (rateDue_ != capturedBaud_ && hostBaud_ != 0) {
    captured_ = rateTime_;
    replayed_ = now;
  }
  capturedBaud_ = rateDue_;
  return Progress::Passed;
}

// The port is back in the middle of the time for which it was away from the host.
void ReplayDevice::PullPlug(Moment now, DeviceLine& line) {
  const Moment lost = next_->time;
  Pass(now);
  do {
    Fetch();
  } while (next_ && next_->kind != TopicKind::LineOpened);
  const Moment away = next_ ? (next_->time - lost) / 2 : Moment(std::chrono::seconds(1));
  asked_.clear();
  reopened_ = false;
  unplugged_ = true;
  const double seconds = static_cast<double>(away.count()) * 1e-9 / options_.speed;
  line.Raise({FaultKind::Unplug, std::clamp(seconds, 0.05, kLongestAway)});
  closedTime_ = Moment(0);
}

// ---- Hosts that do otherwise -------------------------------------------------------------------

void ReplayDevice::FindQuestion(Moment now, DeviceLine& line) {
  if (now < nextSearch_) return WakeAt(nextSearch_);
  nextSearch_ = now + kSearchEvery;
  const std::string expected =
      next_ && next_->kind == TopicKind::LineSent ? ", not " + ShowBytes(next_->bytes) : "";
  std::string told = Place() + ": the host sends " + ShowBytes(asked_) + expected;
  std::optional<LineStep> found;
  if (!reopened_ && next_) found = capture_.Find(asked_, next_->time);
  if (!found && (reopened_ || next_)) found = capture_.Find(asked_, Moment(0));
  if (!found) {
    line.Say(now, told + "; it stays without an answer");
    asked_.clear();
    return;
  }
  next_ = std::move(found);
  heldBack_.reset();
  line.Say(now, told + "; the replay goes on at " + Seconds(next_->time));
  reopened_ = false;
  endTold_ = false;
  line.DropWaiting();
  Pass(now);
  askedAt_ = now;
  WakeAt(now + kStepLater);
}

void ReplayDevice::Restart(Moment now, DeviceLine& line) {
  line.DropWaiting();
  Rewind();
  Pass(now);
  capturedBaud_ = rateDue_ = 0;
  closedTime_ = Moment(0);
  endTold_ = false;
}

void ReplayDevice::End(Moment now, DeviceLine& line) {
  if (!endTold_) {
    endTold_ = true;
    const char* const next = options_.loop ? " and begins anew" : "; the device is silent";
    line.Say(now, std::string("the capture has ended") + next + capture_.WhatIsMissing());
    loopAt_ = std::max(now, line.FreeAt()) + kLastReads;
  }
  if (!options_.loop) return;
  if (now < loopAt_) return WakeAt(loopAt_);
  Restart(now, line);
  unplugged_ = true;
  asked_.clear();
  reopened_ = false;
  line.Raise({FaultKind::Unplug, 1.0});
}

}  // namespace kinetrel::emulate

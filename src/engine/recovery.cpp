#include "engine/recovery.h"

#include <algorithm>
#include <utility>

#include "engine/apply_configuration.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

double SecondsSince(std::int64_t tick) {
  return static_cast<double>(ClockTicks() - tick) / static_cast<double>(ClockTicksPerSecond());
}

}  // namespace

Recovery::Recovery(std::shared_ptr<EngineState> state, std::shared_ptr<TrackerDevice> device)
    : state_(std::move(state)),
      device_(std::move(device)),
      own_(dynamic_cast<OwnConnection*>(device_.get())),
      followed_(own_ != nullptr ? own_->MayBeRestarted()
                                : device_->portStatus() == PortStatus::Open),
      deviceType_(device_->GetDeviceType(nullptr, 0)),
      name_(device_->GetDeviceName()),
      lastFrame_(ClockTicks()) {}

void Recovery::NoteFrame() {
  if (trouble_ != Trouble::None) {
    Announce(state_->status, "\n\t", StatusCode::Progress, "%s is back after %.1f seconds.", name_,
             SecondsSince(lastFrame_));
    PrintError("\nRunning ...  ");
    trouble_ = Trouble::None;
    strangerReported_ = false;
  }
  lastFrame_ = ClockTicks();
}

Recovery::Trouble Recovery::Diagnose() const {
  const bool lost =
      own_ != nullptr ? own_->ConnectionLost() : device_->LineLost() || !device_->HasHandle();
  if (lost) return Trouble::PortGone;
  const double patience = static_cast<double>(kSilencePatience.count()) / 1000.0;
  return SecondsSince(lastFrame_) > patience ? Trouble::Silent : Trouble::None;
}

void Recovery::Report(Trouble trouble) {
  trouble_ = trouble;
  pause_ = kFirstPause;
  next_ = Deadline(trouble == Trouble::PortGone ? kFirstPause : Milliseconds(0));
  Announce(state_->status, "\n\t", StatusCode::Port,
           trouble == Trouble::PortGone ? "The port of %s has gone; waiting for it ... "
                                        : "%s sends nothing usable; starting it anew ... ",
           name_);
}

bool Recovery::Try(const EngineLock& lock) {
  lock.AssertHolds(state_->mutex);
  if (!followed_) return false;
  if (trouble_ == Trouble::None) {
    const Trouble found = Diagnose();
    if (found == Trouble::None) return false;
    Report(found);
  }
  if (!next_.Passed()) return false;
  const Lock inUse(device_->inUse());
  const bool booted = Reopen();
  if (booted) RestoreConfiguration(*state_, lock);
  // A device that has just booted gets time to deliver.
  next_ = Deadline(booted ? std::max(pause_, kSilencePatience) : pause_);
  pause_ = std::min(pause_ * 2, kLongestPause);
  return booted;
}

bool Recovery::Reopen() {
  device_->ClosePort();
  if (OpenConfiguredPort(*device_, state_->config) < 1) return false;
  if (device_->Boot(0) >= kBooted && SameDevice()) return true;
  device_->ClosePort();
  return false;
}

bool Recovery::SameDevice() {
  if (device_->GetDeviceType(nullptr, 0) == deviceType_) return true;
  if (!strangerReported_) {
    Announce(state_->status, "\n\t", StatusCode::Port,
             "%s answers in place of %s; it is left alone.", device_->GetDeviceName(), name_);
    strangerReported_ = true;
  }
  return false;
}

}  // namespace kinetrel

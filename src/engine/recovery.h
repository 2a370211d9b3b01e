// Brings a tracker back that has stopped delivering: unplugged, silent, or restarted and without
// its settings. The tracker is on a serial port or on a connection of its own.
//
// Opens the port again by name, at growing intervals, and boots the device. Only a device that
// identifies itself as the same model is configured, because another device may have the name by
// then. The trouble is reported once, and its end once.
//
// Threads  the sampling thread. An attempt runs under the engine lock and takes as long as the boot
//          of the device.
#pragma once

#include <cstdint>
#include <memory>

#include "devices/optional_interfaces.h"
#include "engine/engine_state.h"

namespace kinetrel {

class Recovery {
 public:
  // A tracker is started anew when it delivers nothing for longer than this.
  static constexpr Milliseconds kSilencePatience{3000};
  static constexpr Milliseconds kFirstPause{500};
  static constexpr Milliseconds kLongestPause{5000};

  // The device is booted. A device with neither an open serial port nor a connection of its own is
  // never started anew.
  Recovery(std::shared_ptr<EngineState> state, std::shared_ptr<TrackerDevice> device);

  void NoteFrame();  // after a good frame

  // After a failed frame. True if this call booted and configured the device: the caller then
  // starts continuous output again.
  bool Try(const EngineLock& lock);

  enum class Trouble { None, PortGone, Silent };
  Trouble trouble() const { return trouble_; }  // since the last good frame

 private:
  Trouble Diagnose() const;
  void Report(Trouble trouble);
  bool Reopen() REQUIRES(state_->mutex);
  bool SameDevice();

  const std::shared_ptr<EngineState> state_;
  const std::shared_ptr<TrackerDevice> device_;
  OwnConnection* const own_;  // null: the serial port
  const bool followed_;
  const int deviceType_;  // as the device reports it, with the model
  const char* name_;

  Trouble trouble_ = Trouble::None;
  bool strangerReported_ = false;
  std::int64_t lastFrame_;  // ticks
  Milliseconds pause_{0};   // between attempts; grows
  Deadline next_{Milliseconds(0)};
};

}  // namespace kinetrel

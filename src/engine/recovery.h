// Brings a tracker on a serial port, or on a connection of its own, back that has stopped
// delivering: unplugged, silent, or restarted and without its settings.
//
// The port is opened again by name, at growing intervals, and the device booted; only one that
// identifies itself as the same model is given its configuration, for by then another device may
// have the name. What is wrong is said once, and once when all is well again.
//
// Threads  the sampling thread's own. An attempt runs under the engine lock and takes as long as
//          the device's boot.
#pragma once

#include <cstdint>
#include <memory>

#include "devices/own_connection.h"
#include "engine/engine_state.h"

namespace kinetrel {

class Recovery {
 public:
  // A tracker that never fails for longer than this is left alone, unless its port has gone.
  static constexpr Milliseconds kSilencePatience{3000};
  static constexpr Milliseconds kFirstPause{500};
  static constexpr Milliseconds kLongestPause{5000};

  // For a booted device; one that has neither a serial port open nor a connection of its own is
  // never touched.
  Recovery(std::shared_ptr<EngineState> state, std::shared_ptr<TrackerDevice> device);

  void NoteFrame();  // a good one

  // After a failed frame. True when the device has just been booted and configured anew and must
  // be told to send again.
  bool Try(const EngineLock& lock);

 private:
  enum class Trouble { None, PortGone, Silent };

  Trouble Diagnose() const;
  void Report(Trouble trouble);
  bool Reopen();
  bool SameDevice();

  const std::shared_ptr<EngineState> state_;
  const std::shared_ptr<TrackerDevice> device_;
  OwnConnection* const own_;  // null: the serial port
  const bool followed_;
  const int deviceType_;  // as the device reports it, model included
  const char* name_;

  Trouble trouble_ = Trouble::None;
  bool strangerReported_ = false;
  std::int64_t lastFrame_;  // ticks
  Milliseconds pause_{0};   // between attempts; grows
  Deadline next_{Milliseconds(0)};
};

}  // namespace kinetrel

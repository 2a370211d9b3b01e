// Tells the service manager how sampling goes: ready with the first published frame, alive while
// the sampling thread makes progress, and the newest line of the status log.
//
// The manager ends a process that is not alive for its watchdog period (WatchdogSec=). While a lost
// tracker is awaited, the process counts as alive. When a thread hangs in a device, it does not.
//
// Threads  the main thread only.
#pragma once

#include <cstdint>
#include <string>

#include "engine/tracker_engine.h"
#include "platform/service_manager.h"

namespace kinetrel {

class ServiceReport {
 public:
  explicit ServiceReport(TrackerEngine& engine);

  void Look();      // call it at least twice a second while the engine samples
  void Stopping();  // once, before sampling is stopped

 private:
  void ReportAlive(const SamplingProgress& progress);
  void ReportStatus();

  TrackerEngine& engine_;
  ServiceManager manager_;
  Milliseconds pause_;  // between two signs of life
  Deadline next_{Milliseconds(0)};
  std::uint64_t passes_ = 0;  // at the last sign of life
  bool ready_ = false;
  bool stopping_ = false;
  std::string status_;  // as the manager knows it
};

}  // namespace kinetrel

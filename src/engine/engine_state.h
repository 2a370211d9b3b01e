// What one engine and its sampling thread share. Owned by both: a thread that hangs in a device
// past its time is abandoned, and still finds all it touches when it comes back.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "devices/daq_control.h"
#include "devices/status_log.h"
#include "devices/tracker_device.h"
#include "engine/engine_lock.h"
#include "engine/mapping.h"
#include "engine/start_config.h"

namespace kinetrel {

struct EngineState {
  // Has a lock of its own. First, so that it outlives the device that writes it.
  StatusLog status;

  PriorityMutex mutex;

  // Guarded by the mutex.
  StartConfig config;
  std::string trackerName;  // the host's own word for the tracker
  std::shared_ptr<TrackerDevice> device;
  std::shared_ptr<DAQControl> joystick;
  unsigned samplingRun = 0;  // the number of the newest run; see SampleLoop::Superseded
  MappingTable mappings;
  float lastRawAzimuth = 0.0F;  // radians; last read from any sensor
  float azimuthZero = 0.0F;     // radians; subtracted from every published azimuth

  // The mapping of a destination, made if there is none.
  Mapping& MappingAt(const MappingKey& key) {
    Mapping& mapping = mappings[key];
    mapping.filters.SetStatusLog(&status);
    return mapping;
  }

  // Read without it.
  std::atomic<bool> isOpen = false;
  std::atomic<int> pendingCalls = 0;  // control calls that are made right now
};

}  // namespace kinetrel

// What one engine and its sampling thread share. Both own it: a thread that hangs in a device is
// abandoned after its time, and finds all that it uses when it comes back.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "devices/daq_control.h"
#include "devices/status_log.h"
#include "devices/tracker_device.h"
#include "engine/engine_lock.h"
#include "engine/mapping.h"
#include "engine/start_config.h"

namespace kinetrel {

// What the host has asked of the open device beyond the configuration. A device that is booted
// again gets it once more.
struct DeviceRequests {
  static constexpr std::size_t kMostControlStrings = 64;

  std::optional<int> protocol;              // empty: the device's own
  std::vector<std::string> controlStrings;  // in the order in which they were accepted

  // A repeated text moves to the end; beyond the limit the oldest text is forgotten. A text that
  // begins with a control character is a command, such as the Ctrl-Y that restarts a FASTRAK, and
  // is not kept.
  void KeepControlString(const char* text) {
    if (static_cast<unsigned char>(*text) < ' ') return;
    std::erase(controlStrings, text);
    controlStrings.emplace_back(text);
    if (controlStrings.size() > kMostControlStrings) controlStrings.erase(controlStrings.begin());
  }
};

struct EngineState {
  // Has its own lock. It stands first so that it outlives the device, which writes into it.
  StatusLog status;

  PriorityMutex mutex;

  // Guarded by the mutex.
  StartConfig config;
  std::string trackerName;  // as the host named it
  std::shared_ptr<TrackerDevice> device;
  DeviceRequests requests;
  std::shared_ptr<DAQControl> joystick;
  unsigned samplingRun = 0;  // the number of the newest run; see SampleLoop::Superseded
  MappingTable mappings;
  float lastRawAzimuth = 0.0F;  // radians; last read from any sensor
  float azimuthZero = 0.0F;     // radians; subtracted from every published azimuth

  // The mapping of a destination. A new one is made if the destination has none.
  Mapping& MappingAt(const MappingKey& key) {
    Mapping& mapping = mappings[key];
    mapping.filters.SetStatusLog(&status);
    return mapping;
  }

  // May be read without the mutex.
  std::atomic<bool> isOpen = false;
  std::atomic<int> pendingCalls = 0;  // control calls that run or wait now
};

}  // namespace kinetrel

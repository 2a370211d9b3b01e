// What one engine and its sampling thread share. Both own it: a thread that hangs in a device is
// abandoned after its time, and finds all that it uses when it comes back.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/capture.h"
#include "devices/daq_control.h"
#include "devices/status_log.h"
#include "devices/tracker_device.h"
#include "engine/engine_lock.h"
#include "engine/filter_bank.h"
#include "engine/mapping.h"
#include "engine/start_config.h"
#include "publish/record_stream_writer.h"

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

  StartConfig config GUARDED_BY(mutex);
  std::string trackerName GUARDED_BY(mutex);  // as the host named it
  std::shared_ptr<TrackerDevice> device GUARDED_BY(mutex);
  DeviceRequests requests GUARDED_BY(mutex);
  std::shared_ptr<DAQControl> joystick GUARDED_BY(mutex);
  std::shared_ptr<Capture> capture GUARDED_BY(mutex);  // of the open device; null: none
  unsigned samplingRun GUARDED_BY(mutex) = 0;  // the newest run's; see SampleLoop::Superseded
  std::weak_ptr<RecordStreamWriter> stream GUARDED_BY(mutex);  // the newest run's; empty: none
  MappingTable mappings GUARDED_BY(mutex);
  FilterBank filters{status};                     // has its own lock; one chain for each mapping
  float lastRawAzimuth GUARDED_BY(mutex) = 0.0F;  // radians; last shown, without the zero
  float azimuthZero GUARDED_BY(mutex) = 0.0F;  // radians; subtracted from every published azimuth

  // The mapping of a destination. A new one is made if the destination has none.
  Mapping& MappingAt(const MappingKey& key) REQUIRES(mutex) { return mappings[key]; }

  void MapSensor(const MappingKey& key, int sensor) REQUIRES(mutex) {
    MappingAt(key).sensor = sensor;
    filters.SetSensor(key, sensor);
  }

  // May be read without the mutex.
  std::atomic<bool> isOpen = false;
  std::atomic<int> pendingCalls = 0;      // control calls that run or wait now
  std::atomic<std::uint64_t> passes = 0;  // of the sampling loop, with a frame or without
  std::atomic<std::uint64_t> frames = 0;  // that were published
};

}  // namespace kinetrel

// The one object of a run: configuration, device, mappings, status log and sampling thread.
//
// Closed when constructed; Open, StartSampling, Close, and again if wished. Progress and failures
// are printed on the standard error stream and kept in the status log.
//
// Threads  any operation may be called from any thread; each takes the engine's lock, which the
//          sampling thread gives up between frames.
#pragma once

#include <functional>
#include <memory>

#include "devices/device_factory.h"
#include "engine/engine_state.h"
#include "engine/worker_thread.h"

namespace kinetrel {

// Outcomes of Open.
enum class OpenResult : int {
  Opened = 0,
  NoDevice = -1,  // a type that has no driver
  AlreadyOpen = -2,
  PortFailed = -3,
  BootFailed = -4,
};

class TrackerEngine {
 public:
  explicit TrackerEngine(DeviceFactory factory = {});
  ~TrackerEngine();  // stops and closes
  TrackerEngine(const TrackerEngine&) = delete;
  TrackerEngine& operator=(const TrackerEngine&) = delete;

  // Lets `edit` change the start configuration under the lock, once the mappings have been made
  // anew for the sensors it had. Returns what `edit` does.
  bool Configure(const std::function<bool(StartConfig&)>& edit);
  StartConfig Configuration() const;  // a copy

  // Makes the driver of the type, opens its port, boots and configures it. Takes as long as the
  // device does.
  //
  // port                 n of COMn, or StartConfig::kUsbPort.
  // resetConfiguration   start from the defaults instead of what was configured.
  OpenResult Open(int deviceType, int port, bool resetConfiguration);

  // Stops sampling and gives the device back. False when not open.
  bool Close();
  bool IsOpen() const;

  bool StartSampling();                           // false: not open, or no thread is to be had
  bool StopSampling(bool wait);                   // true; with `wait`, after up to 10 s
  bool WaitSampling(Milliseconds timeout) const;  // true: no thread, or it ended in time
  bool HasSamplingThread() const;                 // one was started and has not been told to stop

  // Takes the azimuth last read from any sensor as zero for all; and back. Always true.
  bool ZeroAzimuth();
  bool RestoreAzimuth();

  // Publishes on device number 0..15, or the one derived from the port when negative. A running
  // sampling thread is stopped and started again. Always true.
  bool SetSharedMemoryDevice(int id);

  // Makes the mapping table anew: sensor i to pose slot i of bin 0, for every enabled sensor.
  bool ResetMappings();
  bool AddDefaultMappings();  // for those that have none

  StatusLog& status() { return state_->status; }

 private:
  OpenResult Attach(const EngineLock& lock);
  bool OpenPort(TrackerDevice& device);
  bool BootDevice(TrackerDevice& device);
  bool AttachJoystick(const EngineLock& lock);
  void ResetMappings(const EngineLock& lock);
  void AddDefaultMappings(const EngineLock& lock);
  std::unique_ptr<TrackerDevice> MakeDeviceOrSay(int deviceType);

  const DeviceFactory factory_;
  const std::shared_ptr<EngineState> state_;
  WorkerThread worker_;
};

}  // namespace kinetrel

// The engine: configuration, device, mappings, status log and sampling thread of one tracker.
//
// A new engine is closed. Call Open, StartSampling and Close, as often as needed. The engine prints
// progress and failures on the standard error stream and keeps them in the status log.
//
// Threads  any thread may call any operation; each takes the engine's lock, which the sampling
//          thread releases between frames.
#pragma once

#include <cstdint>
#include <memory>

#include "devices/device_factory.h"
#include "engine/engine_state.h"
#include "engine/worker_thread.h"
#include "filters/filter.h"

namespace kinetrel {

// Outcomes of Open.
enum class OpenResult : int {
  Opened = 0,
  NoDevice = -1,  // no driver for the type
  AlreadyOpen = -2,
  PortFailed = -3,
  BootFailed = -4,
};

class ControlCall;

// What the sampling thread has done since the engine was made, over all its runs.
struct SamplingProgress {
  std::uint64_t passes = 0;  // reads of the device, whatever came of them
  std::uint64_t frames = 0;  // published frames
};

// The numbers of the engine's attributes, in the order of their table.
enum class EngineAttribute : int {
  TrackerName = 0,  // text: a name that the host gives
  CurrentStatus,    // text: the newest status message; setting it has no effect
  SharedMemoryId,   // 0..15, or negative: from the port
  SensorMask,
  ComponentMask,
  Units,
  JoystickPort,
  Offset,          // 6 floats
  Hemisphere,      // 3 floats
  AlignX,          // 3 floats
  AlignY,          // 3 floats
  RollAllSensors,  // 1 or 0; reads -1 if the offset has another roll
  Bore,
  Continuous,
  Query,  // setting it to nonzero asks the device and prints its status at once
  Synchronization,
  Protocol,       // text that begins with the number
  ControlString,  // text for the driver
  DeviceType,     // the status word of the open device; cannot be set
};

// The numbers of a mapping's attributes, which a filter index of -1 selects. All are read-only.
enum class MappingAttribute : int {
  Name = 0,
  Position,     // 3 floats, as published
  Euler,        // 3 floats, as published
  Orientation,  // the quaternion: 4 floats, as published
  Digital,      // the buttons
  FrameCount,
  FrameRate,  // 1 to 4 floats: mean, standard deviation, minimum, maximum; Hz
  Latency,    // the same; seconds from sample to publication
};

class TrackerEngine {
 public:
  // factory  makes the drivers; both of its functions must be set.
  explicit TrackerEngine(DeviceFactory factory);
  ~TrackerEngine();  // stops and closes
  TrackerEngine(const TrackerEngine&) = delete;
  TrackerEngine& operator=(const TrackerEngine&) = delete;

  // Replaces the start configuration. Resets the mappings first, for the sensors of the old one.
  // False, and nothing changes, while the engine is open.
  bool Configure(const StartConfig& config);
  StartConfig Configuration() const;  // a copy

  // Makes the driver of the type, opens its port, boots and configures the device. Takes as long as
  // the device needs.
  //
  // port                 n of COMn, or StartConfig::kUsbPort.
  // resetConfiguration   true: starts from the default configuration.
  OpenResult Open(int deviceType, int port, bool resetConfiguration);

  // Stops sampling and closes the device. False if the engine is not open.
  bool Close();
  bool IsOpen() const;

  bool StartSampling();                           // false: not open, or no thread started
  bool StopSampling(bool wait);                   // true; with `wait`, returns after at most 10 s
  bool WaitSampling(Milliseconds timeout) const;  // true: no thread, or it ended in time
  bool HasSamplingThread() const;                 // started, and not yet told to stop
  // Takes no lock, so that it answers while the sampling thread hangs in a device.
  SamplingProgress Progress() const;

  // Makes the azimuth last read from any sensor the zero of all sensors; RestoreAzimuth undoes
  // that. Always true.
  bool ZeroAzimuth();
  bool RestoreAzimuth();

  // Publishes on device number 0..15; a negative `id` means the number derived from the port. Stops
  // and restarts a running sampling thread. 16 and above: false, and nothing changes.
  bool SetSharedMemoryDevice(int id);

  // Makes a new mapping table for every enabled sensor: the mappings of the configuration, or
  // sensor i to pose slot i of bin 0 if it has none; with the filters of the configuration.
  bool ResetMappings();
  bool AddDefaultMappings();  // adds the missing ones of these

  StatusLog& status() { return state_->status; }

  // ---- Control -----------------------------------------------------------------------------
  // A closed engine refuses all but the first two. A refused call changes nothing and logs the
  // reason. A setting that the device cannot take while it samples stops and restarts the sampling
  // thread; the frame counts then begin again. A setting that reaches the device waits for the
  // frame being read.

  bool GetNumAvailableAttributes(int* count);
  bool GetAvailableAttributes(int count, AttributeInfo* rows);  // the first min(count, all)

  bool GetAttributeInt(int id, int* value);
  bool SetAttributeInt(int id, int value);
  // The count must be the attribute's own. Lengths in the configured unit, angles in radians.
  bool GetAttributeFloatArray(int id, int count, float* values);
  bool SetAttributeFloatArray(int id, int count, const float* values);
  // At most `size` characters are copied: a text that fills them has no terminator.
  bool GetAttributeString(int id, int size, char* text);
  bool SetAttributeString(int id, const char* text);

  // A key is {device, bin 0..15, pose slot 0..31}. Keys that differ in the device number are equal.
  bool GetMappingSize(int* count);
  bool GetMappingList(int count, int* keys);  // 3 ints a mapping; the count must be the size
  bool GetMapping(const int key[3], int* sensor);
  bool SetMapping(const int key[3], int sensor);  // a negative sensor removes it

  // Filters are numbered from 0 in the order in which they are applied. The index -1 means the
  // mapping itself.
  int AddFilter(const int key[3], int filterType);  // the index; -1: no such type; 0 if closed
  // Adds the filter of a text such as "rigid:scale=2"; see filters/filter_option.h. The index; -1,
  // and the reason in the status log: refused.
  int AddFilterNamed(const int key[3], const char* text);
  bool ClearFilters(const int key[3]);
  bool ClearFilter(const int key[3], int index);
  bool GetNumFilters(const int key[3], int* count);
  bool GetFilterType(const int key[3], int index, int* type);
  bool MoveFilter(const int key[3], int index, bool up);
  bool EnableFilter(const int key[3], int index, bool enable);
  bool GetFilterEnabled(const int key[3], int index, bool* enabled);

  bool SetFilterAttributeInt(const int key[3], int index, int id, int value);
  bool SetFilterAttributeDouble(const int key[3], int index, int id, double value);
  bool SetFilterAttributeFloatArray(const int key[3], int index, int id, int count,
                                    const float* values);
  bool SetFilterAttributeString(const int key[3], int index, int id, const char* text);
  bool GetFilterAttributeInt(const int key[3], int index, int id, int* value);
  bool GetFilterAttributeDouble(const int key[3], int index, int id, double* value);
  bool GetFilterAttributeFloatArray(const int key[3], int index, int id, int count, float* values);
  bool GetFilterAttributeString(const int key[3], int index, int id, int size, char* text);
  bool GetNumAvailableFilterAttributes(const int key[3], int index, int* count);
  bool GetAvailableFilterAttributes(const int key[3], int index, int count, AttributeInfo* rows);

 private:
  OpenResult Attach(const EngineLock& lock) REQUIRES(state_->mutex);
  void BeginCapture() REQUIRES(state_->mutex);
  bool OpenPort(TrackerDevice& device) REQUIRES(state_->mutex);
  bool BootDevice(TrackerDevice& device);
  bool AttachJoystick(const EngineLock& lock) REQUIRES(state_->mutex);
  bool StartSampling(const EngineLock& lock) REQUIRES(state_->mutex);
  void StopAndWait() EXCLUDES(state_->mutex);
  void ResetMappings(const EngineLock& lock) REQUIRES(state_->mutex);
  void AddDefaultMappings(const EngineLock& lock) REQUIRES(state_->mutex);
  void AddDefaultMapping(const EngineLock& lock, const ConfiguredMapping& mapping)
      REQUIRES(state_->mutex);
  void AddConfiguredFilters(const MappingKey& key, int sensor) REQUIRES(state_->mutex);
  std::unique_ptr<TrackerDevice> MakeDevice(int deviceType);
  bool SetSharedMemoryDevice(EngineLock& lock, int id) REQUIRES(state_->mutex);

  template <typename Change>
  bool ChangeWhileStopped(ControlCall& call, bool stop, Change change) REQUIRES(state_->mutex);
  bool SetInt(ControlCall& call, EngineAttribute attribute, int value) REQUIRES(state_->mutex);
  bool SetText(ControlCall& call, EngineAttribute attribute, const char* text)
      REQUIRES(state_->mutex);
  bool SetProtocol(ControlCall& call, const char* text) REQUIRES(state_->mutex);
  void PushFloats(ControlCall& call, EngineAttribute attribute) REQUIRES(state_->mutex);
  void ReportStatusOnDemand(TrackerDevice& device);
  Filter* SettableFilter(ControlCall& call, const int key[3], int index);
  bool GetMappingFloats(ControlCall& call, const int key[3], Mapping& mapping, int id, int count,
                        float* values);

  const DeviceFactory factory_;
  const std::shared_ptr<EngineState> state_;
  WorkerThread worker_;
};

}  // namespace kinetrel

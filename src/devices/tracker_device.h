// The interface through which the engine opens, boots, configures and samples a tracker, and the
// state that all drivers share.
//
// A driver overrides the operations that its device has; each default gives a definite answer. The
// 47 operations stand in the same order here and in every driver. A sensor index of -1 in a setter
// means all sensors.
//
// Threads  one at a time; the engine's lock and inUse() ensure that. ReadFrame and Poll run on the
//          sampling thread without the engine's lock.
// Memory   ReadFrame, Poll, the record getters and ElapsedSeconds allocate nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "devices/device_names.h"
#include "devices/pose.h"
#include "devices/serial_port.h"
#include "devices/status_log.h"
#include "platform/mutex.h"

namespace kinetrel {

// The parts of a pose that a device delivers; the bits of the component mask.
inline constexpr unsigned kPositionComponent = 1U << 0;
inline constexpr unsigned kEulerComponent = 1U << 1;
inline constexpr unsigned kQuaternionComponent = 1U << 2;

inline constexpr int kUnknownProduct = 0x0BAD0000;

// The high byte of a status word: how a device of that kind can be read.
enum class DeviceFamily : int {
  None = 0,               // the word names a single product
  PanTilt = 0x100,        // polled only
  Serial = 0x200,         // bit 0 of the word: firmware that can stream
  HeadTracker = 0x400,    // polled only
  VendorLibrary = 0x600,  // polled only
  StreamOnly = 0x800,
  Gps = 0xC00,  // streams only
};

constexpr DeviceFamily FamilyOf(int statusCode) {
  return static_cast<DeviceFamily>(statusCode & ~0xFF);
}

// The status word of the simulated tracker: without a key pressed it has no frame to deliver.
inline constexpr int kKeyboardStatus = 8;
inline constexpr int kMostSensors = 256;

// Masks of stations (sensors): bit i is the station of index i. A mask holds the first 32 stations.
constexpr unsigned StationBit(int station) {
  return station >= 0 && station < 32 ? 1U << station : 0U;
}
constexpr bool HasStation(unsigned mask, int station) { return (mask & StationBit(station)) != 0; }

// The mask of the stations 0 to count - 1.
constexpr unsigned FirstStations(int count) {
  return count >= 32 ? ~0U : count <= 0 ? 0U : (1U << count) - 1;
}

// Turns a device's integer reading into a value: raw x scale + offset.
struct ChannelScale {
  int raw = 0;
  double offset = 0.0;
  double scale = 1.0;

  double Value() const { return raw * scale + offset; }
};

inline constexpr int kNoRecordCode =
    -0x8000;  // the device sends no status of its own with a record

// Gets each record as soon as the driver has decoded it, which may be long before its frame is
// complete. Called within ReadFrame, by the thread that reads. Must not block or allocate.
class RecordReceiver {
 public:
  // The records of `sensors` (mask) are new and can be read from the device.
  //
  // sampleTime  ElapsedSeconds() when the device took them.
  // code        the device's own status or error code, or kNoRecordCode.
  virtual void OnRecords(unsigned sensors, double sampleTime, int code) = 0;
  virtual void OnDropped() = 0;  // a record came and could not be used

 protected:
  ~RecordReceiver() = default;
};

class TrackerDevice : public SerialPort {
 public:
  TrackerDevice();
  ~TrackerDevice() override;

  // ---- Life --------------------------------------------------------------------------------

  // Wakes, identifies and configures the device on the open port.
  //
  // reset    nonzero: first restores the device's own defaults.
  // Returns  kBooted or more, else the failure; see device_names.h.
  virtual BootResult Boot(int reset) = 0;

  // Asks the device for its status and writes it into `text`, at most `size` bytes.
  // Returns nonzero if the device answered.
  virtual int QueryStatus(char* text, int size) = 0;

  // ---- Sampling ----------------------------------------------------------------------------

  // Reads one frame into the pose and quaternion records.
  //
  // sampleTime  set to the frame's ElapsedSeconds() unless null; untouched on failure.
  // Returns     bit i set for each sensor i that has a new record; 0 for no data.
  virtual unsigned ReadFrame(double* sampleTime) = 0;

  virtual void Poll();             // stops continuous output if it runs, then asks for one frame
  virtual void StartContinuous();  // the device sends frames without being asked from now on

  // ---- Stations ----------------------------------------------------------------------------

  virtual int SendStationCommand(const char* command, unsigned stationMask, int stations);

  // Returns the mask now in force.
  virtual unsigned SetSensorMask(unsigned mask, int sensorCount);

  // ---- Settings ----------------------------------------------------------------------------

  // Returns the units now in force: 0 inch, 1 centimetre, 3 metre, 2 GPS.
  virtual int SetUnits(int units);
  virtual int SetCrLf(int on);  // nonzero: records end with carriage return and line feed

  // Returns the protocol now in force; another one than `protocol` means that it was refused.
  virtual int SetProtocol(int protocol);
  virtual int SetSensorVector4(int sensor, float a, float b, float c, float d);
  virtual int SetAlignment(int sensor, const float xAxis[3], const float yAxis[3]);
  virtual int SetAlignmentPose(int sensor, const float pose[6]);
  virtual int ResetAlignment(int sensor);
  virtual int SetSynchronization(int mode);  // 0 internal, 1 external, 2 CRT
  virtual unsigned SetComponentMask(unsigned mask);
  virtual int SetHemisphere(int sensor, const float zenith[3]);

  // The mounting offset added to every reading: x, y, z in the configured unit, then yaw, pitch,
  // roll in radians. False for a component or sensor that does not exist.
  virtual bool SetSensorOffsetComponent(int sensor, unsigned component, double value);
  virtual bool SetSensorPositionOffset(int sensor, const float xyz[3]);
  virtual bool SetSensorOffset(int sensor, const float pose[6]);

  // Text whose meaning each driver defines. The base writes it to the port unchanged.
  virtual bool SetControlString(const char* text);

  // ---- Identity ----------------------------------------------------------------------------

  virtual bool IsProductUnknown();
  virtual bool IsBooted();
  virtual int GetSensorCount();
  virtual const char* GetDeviceName();

  // Copies the name, at most `size` characters (unterminated when it is that long).
  virtual int GetDeviceType(char* name, int size);
  virtual unsigned GetSensorMask();
  virtual int GetStatusCode();  // low 16 bits of the status word, sign-extended
  virtual int GetUnits();
  virtual bool GetCrLf();
  virtual int GetProtocol();
  virtual int GetProtocolText(char* text, int size);
  virtual unsigned GetComponentMask();
  virtual int GetActiveSensorCount();
  virtual int GetFrameRate();  // Hz of each active sensor; 0 when none is active
  virtual bool GetControlString(char* text, int size);

  // ---- Records -----------------------------------------------------------------------------
  // Null for a sensor without records. The pointers lead into the device's own arrays and are valid
  // until the next AllocateSensors or FreeSensors.

  virtual float* GetSensorOffset(int sensor);      // 6 floats
  virtual float* GetSensorPose(int sensor);        // 6 floats
  virtual float* GetSensorPosition(int sensor);    // 3 floats
  virtual float* GetSensorEuler(int sensor);       // 3 floats
  virtual float* GetSensorQuaternion(int sensor);  // 4 floats

  // ---- Not virtual -------------------------------------------------------------------------

  // Makes the records of `count` sensors (1 to kMostSensors): zero positions, identity rotations.
  // False for another count, which changes nothing. False without memory, which leaves no records.
  bool AllocateSensors(unsigned count);
  void FreeSensors();

  // Seconds since the time origin, which is the construction until SetTimeOrigin moves it.
  double ElapsedSeconds();

  // Moves the time origin, so that sample times and publish times can be compared.
  // counter  a reading of ClockTicks().
  void SetTimeOrigin(std::int64_t counter);

  // Held around each use of the device, because frames are read without the engine's lock. A thread
  // that holds both takes the engine's lock first. Held for one operation at most.
  PriorityMutex& inUse() { return inUse_; }

  void SetStatusLog(StatusLog* log) { statusLog_ = log; }  // not owned; null: no log

  // Not owned; null: none. The caller of ReadFrame sets it before and removes it after.
  void SetRecordReceiver(RecordReceiver* receiver) { receiver_ = receiver; }

  // What the engine logs about a failed frame, and the code. The engine then clears the code.
  const char* errorText() const { return errorText_.data(); }
  const char* readText() const { return readText_.data(); }
  int reportCode() const { return reportCode_; }
  void ClearReportCode() { reportCode_ = 0; }

 protected:
  // For a device whose only sensor is sensor 1. A mask without it becomes sensor 1, and console and
  // log say so; any other mask, and mask 0, stays.
  unsigned MaskWithFirstSensor(unsigned mask) const;

  void SetName(DeviceName row) { deviceName_ = DeviceNameText(row); }

  // For ReadFrame: tells of records as soon as they are decoded; see RecordReceiver.
  void TellRecords(unsigned sensors, double sampleTime, int code = kNoRecordCode) {
    if (receiver_ != nullptr) receiver_->OnRecords(sensors, sampleTime, code);
  }
  void TellDropped() {
    if (receiver_ != nullptr) receiver_->OnDropped();
  }

  int productCode_ = kUnknownProduct;
  int sensorCount_ = 0;
  int totalFrameRate_ = 120;  // records a second over all active sensors together
  bool booted_ = false;
  int protocol_ = 0;
  unsigned componentMask_ = kPositionComponent | kEulerComponent;
  int crLf_ = 1;
  int units_ = 1;
  char continuousByte_ = 0;     // starts continuous output
  char pollByte_ = 0;           // asks for one record
  char stopByte_ = 0;           // stops continuous output
  char prePollByte_ = 0;        // sent before the poll byte unless 0
  char lastModeByte_ = 0;       // the mode byte last sent
  unsigned writtenByPoll_ = 0;  // bytesWritten() after the last poll
  int deviceType_ = 0;
  unsigned sensorMask_ = 1;
  std::uint32_t statusWord_ = 0;  // low half: product and state; high half: the driver's own flags
  const char* deviceName_;
  std::vector<Pose> poses_;
  std::vector<Pose> offsets_;
  std::vector<Quaternion> quaternions_;
  std::array<ChannelScale, 10> channels_;
  std::array<char, 256> readText_{};   // last text line of the device worth logging
  std::array<char, 256> errorText_{};  // last error text of the device worth logging
  int reportCode_ = 0;
  StatusLog* statusLog_ = nullptr;

 private:
  bool HasRecord(int sensor) const;
  void WriteModeByte(char mode);

  RecordReceiver* receiver_ = nullptr;
  PriorityMutex inUse_;
  double secondsPerTick_;
  std::int64_t startCounter_;
};

}  // namespace kinetrel

// The Polhemus Liberty, up to 16 stations at 120 or 240 Hz, reached through its device library.
// vendor/pdi_table.h describes the library, liberty_frame.h the frames.
//
// The getters read the last frame. Their sensor index counts the active stations in the order of
// their numbers. The base class' records and sensor count stay empty.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "devices/motion_gate.h"
#include "devices/optional_interfaces.h"
#include "devices/tracker_device.h"
#include "drivers/liberty_frame.h"
#include "drivers/liberty_pdi.h"
#include "filters/offset_filter.h"
#include "platform/timer.h"

namespace kinetrel {

// Threads  any. A lock of the driver guards every call of the library, also while ReadFrame waits
// for
//          a frame. A setting therefore waits for a frame, at most one second.
class LibertyDevice final : public TrackerDevice, public OwnConnection, public PackedRecords {
 public:
  LibertyDevice();
  ~LibertyDevice() override;

  // ---- Port --------------------------------------------------------------------------------

  // name  "usb" for the only tracker on USB, or "usb:1-2.3": spoken to without the library. Any
  //       other is not supported: 0.
  int OpenPort(const char* name, int baud) override;

  // Stores port and baud rate for Boot. kUsbPortNumber is the library's USB if a library is
  // installed or KINETREL_PDI names one, else the same as "usb". Returns 0 for a baud rate that the
  // library does not know; the port is stored all the same.
  int OpenPortNumber(int number, int baud) override;
  int ClosePort() override;
  int GetPortNumber() override;
  unsigned GetBaudRate() override;

  // ---- Life --------------------------------------------------------------------------------

  // Connects, selects the items of a record, logs and clears the errors of the built-in test.
  // Returns kBooted, or 0 when no tracker is found.
  BootResult Boot(int reset) override;
  int QueryStatus(char* text, int size) override;  // 0: it has no status text
  bool ConnectionLost() override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Waits for a frame with a new counter, for about 500 ms in steps of 1 ms.
  //
  // Returns  the stations in the frame; 0 when no frame came or no tracker is connected. A station
  //          without a record keeps its last one for kHoldMs; then it has none until it is back.
  unsigned ReadFrame(double* sampleTime) override;
  void Poll() override;  // ends continuous output; ReadFrame then asks for each frame
  void StartContinuous() override;

  // ---- Stations ----------------------------------------------------------------------------

  unsigned SetSensorMask(unsigned mask, int sensorCount) override;

  // With stations 1 and 3 active, sensor 2 (station 3) has record 1.
  int RecordOf(int sensor) override;

  // ---- Settings ----------------------------------------------------------------------------

  int SetUnits(int units) override;        // 0 inch; 1 and 2 centimetre; others return 0
  int SetCrLf(int on) override;            // 0: its records are binary
  int SetProtocol(int protocol) override;  // frame rate: 4 120 Hz, 5 240 Hz; others return 0
  int SetSensorVector4(int sensor, float a, float b, float c, float d) override;
  int SetAlignment(int sensor, const float xAxis[3], const float yAxis[3]) override;
  int SetAlignmentPose(int sensor, const float pose[6]) override;
  int ResetAlignment(int sensor) override;
  int SetSynchronization(int mode) override;
  unsigned SetComponentMask(unsigned mask) override;
  int SetHemisphere(int sensor, const float zenith[3]) override;  // of all active stations, 1 to 8

  // One offset for all sensors.
  bool SetSensorOffsetComponent(int sensor, unsigned component, double value) override;
  bool SetSensorPositionOffset(int sensor, const float xyz[3]) override;
  bool SetSensorOffset(int sensor, const float pose[6]) override;

  // ---- Identity ----------------------------------------------------------------------------

  int GetProtocolText(char* text, int size) override;
  int GetFrameRate() override;  // of the whole tracker, 120 or 240, whatever the active stations

  // ---- Records -----------------------------------------------------------------------------
  // Null without a frame and for a sensor that is not in it. All sensors share one record, which
  // each call overwrites.

  float* GetSensorOffset(int sensor) override;  // zeros
  float* GetSensorPose(int sensor) override;    // null unless position and angles are delivered
  float* GetSensorPosition(int sensor) override;
  float* GetSensorEuler(int sensor) override;
  float* GetSensorQuaternion(int sensor) override;

 private:
  static constexpr std::size_t kMostStations = 16;
  static constexpr std::size_t kLongestRecord = 64;
  static constexpr std::int64_t kHoldMs = 1500;

  // The last record of a station: a copy, because the library's memory is valid only until its next
  // call.
  struct Record {
    std::array<std::byte, kLongestRecord> bytes{};
    std::int64_t at = 0;  // ticks, when it came
    bool held = false;    // came within kHoldMs
    bool lost = false;    // was reported as missing
    MotionGate gate;
  };

  void Connect();
  void ReportBitErrors();
  void ReadStationMap();
  void StopStream();
  void StartStream();
  void RefreshStations();
  void LayOutRecord();
  bool WaitForFrame();
  bool LookForFrame();
  bool TakeFrame();
  bool HasAnswered(std::uint32_t before) const;
  bool TakeTold();
  unsigned DropFrames();
  void ForgetMotion();
  bool WasAway();
  bool DropOld();
  void TellArrived();
  std::uint32_t StationsIn(std::span<const std::byte> frame) const;
  void StoreRecords(std::span<const std::byte> frame);
  bool StoreRecord(int station, std::span<const std::byte> record);
  bool IsPlausible(int station, std::span<const std::byte> record);
  void AddStations(std::uint32_t stations);
  void WatchStations();
  int StationOf(int record) const;
  int Align(int sensor, const float origin[3], const float xAxis[3], const float yAxis[3]);
  bool LogResult(int result, const char* call);
  bool ReadFloats(int sensor, std::size_t offset, std::span<float> into);

  std::recursive_mutex pdiLock_;  // guards every library call and all fields below
  CPDImdat motionList_;
  CPDIdev pdiDevice_;
  CPDIser pdiSerial_;
  LibertyLayout layout_;
  std::size_t expectedFrameSize_ = 0;  // active stations x record size
  std::uint32_t stationMap_ = 0;       // bit i: station i + 1 is active
  int activeStationCount_ = 0;
  OffsetFilter offsetFilter_;
  std::array<float, 3> positionOffset_{};
  std::array<float, 3> eulerOffset_{};
  Pose zeroOffset_{};
  Pose poseOut_{};
  Quaternion quaternionOut_ = kIdentityQuaternion;
  std::array<Record, kMostStations> records_{};
  std::uint32_t frameStations_ = 0;   // of the last frame
  std::uint32_t toldStations_ = 0;    // of the frame of toldCount_, told before it was complete
  std::uint32_t judgedStations_ = 0;  // those, and those whose record was damaged
  std::uint32_t toldCount_ = 0;
  std::uint32_t wantedStations_ = 0;  // as last set; unplugged sensors are waited for
  std::uint32_t lastFrameCount_ = 0xFFFFFFFF;
  std::uint32_t seenStations_ = 0;  // that delivered in the frame of that count
  bool paused_ = false;
  PeriodicTimer frameTimer_;
  int framePeriodMs_ = 1;
  bool streaming_ = false;
  std::int64_t lastLook_ = 0;  // ticks, for a frame
  TimerResolution resolution_;
};

}  // namespace kinetrel
